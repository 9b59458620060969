# For wheels: programs for any Linux with glibc 2.17 or later, compiled with zig, which brings a clang, the C++ library
# (linked in) and every glibc's symbols. `zig` is looked for on PATH. The including file says for which processor.
set(CMAKE_SYSTEM_NAME Linux)
find_program(VORLINKIT_ZIG zig REQUIRED)
set(CMAKE_CXX_COMPILER ${VORLINKIT_ZIG} c++)
set(CMAKE_CXX_COMPILER_TARGET ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu.2.17)
set(CMAKE_CXX_ARCHIVE_CREATE "${VORLINKIT_ZIG} ar qcs <TARGET> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "")
# zig keeps what it has compiled by itself; another cache in front of it, or headers parsed ahead, only get in its way.
set(CMAKE_CXX_COMPILER_LAUNCHER "")
set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
# Nothing of this system is found by itself; where header-only libraries are is told by who configures (scripts/wheel).
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
