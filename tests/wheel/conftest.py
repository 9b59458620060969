"""Where the wheels are, which Pythons there are to install them in, and an environment of each as a user has it."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from collections.abc import Iterator, Mapping
from pathlib import Path
from zipfile import ZipFile

import pytest

ROOT = Path(__file__).resolve().parents[2]
PROJECT = re.search(
    r"project\(vorlinkit VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
)
assert PROJECT
VERSION = PROJECT[1]
TAGS = {name: f"cp311-cp311-manylinux_2_17_{name}" for name in ("x86_64", "aarch64")} | {
    "package": "py3-none-any"
}
WHEELS = {name: ROOT / "dist" / f"vorlinkit-{VERSION}-{tag}.whl" for name, tag in TAGS.items()}
NATIVE = WHEELS["x86_64"]


def run(*words: object, environment: Mapping[str, str] | None = None, cwd: Path | None = None) -> str:
    done = subprocess.run(
        [str(word) for word in words], env=environment, cwd=cwd, capture_output=True, text=True, timeout=300
    )
    assert done.returncode == 0, f"{words}\n{done.stdout}{done.stderr}"
    return done.stdout


def pythons() -> dict[str, str]:
    """Every CPython from 3.11 on that is here, by version: Debian's, those on PATH, and those of pyenv."""
    names = [shutil.which(f"python3.{minor}") for minor in range(11, 20)]
    pyenv = Path(os.environ.get("PYENV_ROOT", Path.home() / ".pyenv")).glob("versions/3.*/bin/python3")
    found = {}
    for python in ["/usr/bin/python3", *filter(None, names), *map(str, sorted(pyenv))]:
        code = "import ensurepip, platform as p; print(p.python_implementation(), p.python_version())"
        done = subprocess.run([python, "-c", code], capture_output=True, text=True)
        kind, _, version = done.stdout.strip().partition(" ")
        if kind == "CPython" and int(version.split(".")[1]) >= 11:
            found.setdefault(version, python)
    return found


PYTHONS = pythons()


class Computer:
    """A fresh environment of one Python and an empty folder, with no compiler in sight."""

    def __init__(self, python: str, folder: Path) -> None:
        run(python, "-m", "venv", folder / "venv")
        self.bin = folder / "venv" / "bin"
        self.desk = folder / "desk"
        self.desk.mkdir()
        self.environment = {"PATH": str(self.bin), "HOME": str(self.desk), "PIP_CONFIG_FILE": os.devnull}

    def run(self, program: str, *words: object) -> str:
        return run(self.bin / program, *words, environment=self.environment, cwd=self.desk)

    def install(self, *words: object) -> None:
        self.run("pip", "install", "--quiet", "--no-index", *words)


@pytest.fixture(scope="session")
def unpacked(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """A folder for PYTHONPATH with the contents of each wheel."""
    folders = {name: tmp_path_factory.mktemp(name) for name in WHEELS}
    for name, folder in folders.items():
        with ZipFile(WHEELS[name]) as wheel:
            wheel.extractall(folder)
    return folders


@pytest.fixture
def simulator(unpacked: dict[str, Path]) -> Iterator[tuple[str, str]]:
    """Host and port of a simulated machine."""
    words = [sys.executable, "-m", "vorlinkit", "simulate", "--port", "0"]
    with subprocess.Popen(
        words, env=os.environ | {"PYTHONPATH": str(unpacked["package"])}, stdout=subprocess.PIPE, text=True
    ) as process:
        yield address(process)
        process.terminate()


def address(process: subprocess.Popen[str]) -> tuple[str, str]:
    """Where a simulator that has just been started listens."""
    assert process.stdout
    for line in process.stdout:
        if found := re.fullmatch(r"Listening on (\S+):(\d+)\n", line):
            return found[1], found[2]
    raise AssertionError("the simulator has ended without a word about where it listens")
