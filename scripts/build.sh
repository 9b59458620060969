# For scripts/demo and scripts/test, which source it: setup and build with the release preset.

# CPython 3.11 by whatever name it goes here: the one the extension module was built for.
python_311() {
  local candidate
  for candidate in python3 python3.11 /usr/bin/python3; do
    if "$candidate" -c 'import sys; sys.exit(sys.version_info[:2] != (3, 11))' 2>/dev/null; then
      echo "$candidate"
      return
    fi
  done
  echo "No Python 3.11 was found (Debian package python3)." >&2
  return 1
}

scripts/setup
cmake --preset release
cmake --build --preset release
