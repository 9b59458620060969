"""The wheels that `scripts/wheel` has built: what is in them, and whether they do their work where nothing else is."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path
from zipfile import ZipFile

import pytest
from conftest import NATIVE, PYTHONS, ROOT, TAGS, VERSION, WHEELS, Computer, address, run
from elftools.elf.elffile import ELFFile

MODULE = "vorlinkit_python.cpython-311-{}-linux-gnu.so"
GENERATED = {
    "vorlinkit/aio/methods.py",
    "vorlinkit/catalogue.json",
    "vorlinkit/client/methods.py",
    "vorlinkit/client/plans.py",
    "vorlinkit/records.pyi",
    "vorlinkit/version.py",
    "vorlinkit_python-stubs/__init__.pyi",
}
ABOUT = {"METADATA", "WHEEL", "RECORD", "entry_points.txt", "licenses/LICENSE"}
WHICH = "import vorlinkit, vorlinkit.client.backend as b; print(vorlinkit.__version__, b.name(), vorlinkit.__file__)"


@pytest.mark.parametrize("name", WHEELS)
def test_a_wheel_holds_the_package_and_nothing_else(name: str) -> None:
    tracked = run("git", "-C", ROOT / "python", "ls-files", "vorlinkit").split()
    about = f"vorlinkit-{VERSION}.dist-info/"
    module = set() if name == "package" else {MODULE.format(name)}
    with ZipFile(WHEELS[name]) as wheel:
        assert sorted(wheel.namelist()) == sorted(
            {*tracked, *GENERATED, *module, *(about + one for one in ABOUT)}
        )
        assert f"Tag: {TAGS[name]}\n".encode() in wheel.read(about + "WHEEL")
        metadata, entries = wheel.read(about + "METADATA"), wheel.read(about + "entry_points.txt")
    assert b"\nRequires-Python: >=3.11\n" in metadata
    assert b"vorlinkit = vorlinkit.cli:main\n" in entries
    with ZipFile(NATIVE) as wheel:  # pip and others take one wheel's word for all of a release
        assert metadata == wheel.read(about + "METADATA")


@pytest.mark.parametrize("name", ["x86_64", "aarch64"])
def test_the_module_runs_on_old_systems_and_keeps_to_itself(name: str, unpacked: dict[str, Path]) -> None:
    told = run(Path(sys.executable).with_name("auditwheel"), "show", WHEELS[name])
    assert f'"manylinux_2_17_{name}"' in told
    path = unpacked[name] / MODULE.format(name)
    assert path.stat().st_size < 6_000_000
    assert str(ROOT).encode() not in path.read_bytes()
    with path.open("rb") as file:
        elf = ELFFile(file)
        assert elf.get_section_by_name(".symtab") is None
        symbols = list(elf.get_section_by_name(".dynsym").iter_symbols())
    shown = [symbol.name for symbol in symbols if symbol.name and symbol["st_shndx"] != "SHN_UNDEF"]
    assert shown == ["PyInit_vorlinkit_python"]


@pytest.mark.parametrize("version", PYTHONS)
def test_pip_takes_the_wheel_that_fits_and_it_works(version: str, tmp_path: Path) -> None:
    computer = Computer(PYTHONS[version], tmp_path)
    computer.install("--find-links", ROOT / "dist", f"vorlinkit=={VERSION}")
    assert_works(computer, "native" if version.startswith("3.11.") else "python")
    assert computer.run("vorlinkit", "--version") == f"vorlinkit {VERSION}\n"


def test_the_package_alone_works_where_the_module_would_fit(tmp_path: Path) -> None:
    computer = Computer("/usr/bin/python3", tmp_path)
    computer.install(WHEELS["package"])
    assert_works(computer, "python")


def assert_works(computer: Computer, backend: str) -> None:
    version, name, place = computer.run("python", "-c", WHICH).split()
    assert (version, name) == (VERSION, backend)
    assert Path(place).is_relative_to(computer.bin.parent)
    words = [computer.bin / "vorlinkit", "simulate", "--port", "0"]
    where = {"env": computer.environment, "cwd": computer.desk}
    with subprocess.Popen(words, stdout=subprocess.PIPE, text=True, **where) as simulator:
        host, port = address(simulator)
        told = json.loads(computer.run("vorlinkit", "info", f"{host}:{port}", "--json"))
        simulator.terminate()
    assert told["machine_type"] == "VorlinKit simulator"
    assert sorted(computer.desk.iterdir()) == []


@pytest.mark.parametrize("version", [version for version in PYTHONS if not version.startswith("3.11.")])
def test_other_pythons_build_the_package_from_source_without_a_compiler(version: str, tmp_path: Path) -> None:
    computer = Computer(PYTHONS[version], tmp_path)
    computer.environment = os.environ | {"PATH": str(computer.bin)}
    computer.run("pip", "install", "--quiet", ROOT)
    assert computer.run("python", "-c", WHICH).split()[:2] == [VERSION, "python"]


def test_the_other_processors_module_holds_a_session(
    unpacked: dict[str, Path], simulator: tuple[str, str]
) -> None:
    root = ROOT / "build" / "wheel" / "root-aarch64"
    program = (
        "import platform, sys, vorlinkit, vorlinkit.client.backend as backend\n"
        "with vorlinkit.connect(sys.argv[1], int(sys.argv[2])) as machine:\n"
        "    print(platform.machine(), backend.name(), machine.get_machine_info().machine_type)\n"
    )
    emulated = "qemu-aarch64-static", "-L", root, root / "usr" / "bin" / "python3.11"
    environment = {
        "PATH": os.environ["PATH"],
        "PYTHONPATH": str(unpacked["aarch64"]),
        "PYTHONHOME": f"{root}/usr",
    }
    told = run(*emulated, "-c", program, *simulator, environment=environment)
    assert told == "aarch64 native VorlinKit simulator\n"


def test_a_thread_that_the_ending_interpreter_stops_does_not_crash_the_process(
    unpacked: dict[str, Path], simulator: tuple[str, str]
) -> None:
    program = (
        "import sys, threading, time, vorlinkit_python as vorlin\n"
        "config = vorlin.SessionConfig()\n"
        "config.host, config.port = sys.argv[1], int(sys.argv[2])\n"
        "session, inside = vorlin.VorlinSession(config), threading.Event()\n"
        "def never_returns(direction, frame):\n"
        "    inside.set()\n"
        "    while True: time.sleep(0.0005)\n"  # which takes the interpreter's lock again, over and over
        "session.on_frame(never_returns)\n"
        "session.connect()\n"
        "threading.Thread(target=session.send, args=(11, b''), daemon=True).start()\n"
        "inside.wait()\n"
        "class SlowToGo:\n"
        "    def __del__(self):\n"
        "        end = time.perf_counter() + 0.3\n"
        "        while time.perf_counter() < end: pass\n"
        "sys.modules['goes at the very end'] = SlowToGo()\n"
    )
    environment = os.environ | {"PYTHONPATH": str(unpacked["x86_64"])}
    run("/usr/bin/python3", "-c", program, *simulator, environment=environment)


def test_pytest_finds_the_fixtures_by_itself(unpacked: dict[str, Path], tmp_path: Path) -> None:
    test = "def test_it(vorlin_machine):\n    assert vorlin_machine.get_machine_info().serial_number\n"
    (tmp_path / "test_it.py").write_text(test, encoding="utf-8")
    environment = os.environ | {"PYTHONPATH": str(unpacked["x86_64"])}
    assert "1 passed" in run(sys.executable, "-m", "pytest", "-q", cwd=tmp_path, environment=environment)


@pytest.mark.parametrize("name", ["x86_64", "package"])
def test_a_type_checker_knows_the_types(name: str, tmp_path: Path) -> None:
    computer = Computer("/usr/bin/python3", tmp_path)
    computer.install(WHEELS[name])
    program = (
        "import vorlinkit, vorlinkit_python\n"
        "reveal_type(vorlinkit.connect('host').get_machine_info().module_count)\n"
        "reveal_type(vorlinkit_python.GetMachineInfoResponse().serial_number)\n"
    )
    (computer.desk / "program.py").write_text(program, encoding="utf-8")
    words = "-m", "mypy", "--strict", "--python-executable", computer.bin / "python", "program.py"
    told = run(sys.executable, *words, cwd=computer.desk)
    assert [line.partition("type is ")[2] for line in told.splitlines()[:2]] == ['"int"', '"str"']
