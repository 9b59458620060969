"""Does what docs/correcting-a-layout.md tells an integrator to do, from the build on: a corrected layout and a new
command, read in Python and driven against the simulator."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs" / "correcting-a-layout.md").read_text(encoding="utf-8")

# A command of a made-up option of a made-up machine: no line of code anywhere knows of it. Some of its names and
# texts mean something else in C++.
NEW_COMMAND = r"""
confirmed_by = "Example Sorter 4, software 7.2.1, 2026-11-20, Jo Doe: the maker's note on the magnet option"

[GetMagnetStrength]
id = 900
effect = "read"
harmless = "reads the strength, which no command sets"
subscribes = "NotificationLevel"
address = ["MagnetNumber"]
request = ["MagnetNumber: u8  # counted from 1", "NotificationLevel: u8"]
response = [
  "CommandError: u16",
  "NumberOfReadings: u8",
  { list = "Readings", count = "NumberOfReadings", items = ["Position: u16  # in millimetres", "Label: string"] },
]
notification = [
  "MagnetNumber: u8",
  "Strength: u32",
  { variant = "fields", on = "MagnetNumber", alternatives = [{ name = "Two", when = [2], fields = ["Errno: u16"] }] },
]
errors = ["0x0001 No such magnet??/"]
"""

# A file of corrections alone, which is named after none of the catalogue's.
CORRECTIONS = """
[StopGrabObjects]
id = 172
response = ["CommandError: u16"]
confirmed_by = "Example Sorter 4, software 7.2.1, 2026-11-20, Jo Doe: a capture"
"""

USE_NEW_COMMAND = """
import queue
import vorlinkit_python as vorlin
from vorlinkit.catalogue import layout_status
from vorlinkit.simulator import SimulatorProcess

request = vorlin.GetMagnetStrengthRequest()
request.magnet_number, request.notification_level = 2, 1
payload = vorlin.encode_get_magnet_strength_request(request)
assert payload == b"\\2\\1", payload

captured = bytes.fromhex("0000 02 0102 4100 0304 4200")
response = vorlin.decode_get_magnet_strength_response(captured)
assert [(one.position, one.label) for one in response.list_of_readings] == [(0x102, "A"), (0x304, "B")]
assert vorlin.get_magnet_strength_command_error_string(3) == "No such magnet??/; Unknown (0x0002); "
status = layout_status()
for name in ("GetMagnetStrengthResponse", "StopGrabObjectsResponse", "GetEjectorRateLimitResponse"):
    assert status[name].confirmed_by.startswith("Example Sorter 4")
names = ("GetEjectorRateLimitResponse", "GetClientIdResponse", "CalibrateResponse")
assert [status[name].standing for name in names] == ["site-confirmed", "confirmed", "assumed"]

with SimulatorProcess() as simulator:
    config = vorlin.SessionConfig()
    config.host, config.port = simulator.host, simulator.port
    session = vorlin.VorlinSession(config)
    assert session.connect() == (True, "")
    told = queue.Queue()
    session.on_notification(vorlin.GET_MAGNET_STRENGTH_COMMAND_ID, told.put)
    answer, problem = session.send(vorlin.GET_MAGNET_STRENGTH_COMMAND_ID, payload)
    assert answer is not None, problem
    response = vorlin.decode_get_magnet_strength_response(answer)
    assert len(response.list_of_readings) == response.number_of_readings
    notification = vorlin.decode_get_magnet_strength_notification(told.get(timeout=10))
    assert notification.magnet_number == 2
    assert isinstance(notification.fields.errno, int)
    session.disconnect()
"""


def run(words: list[object], **options: object) -> subprocess.CompletedProcess[str]:
    return subprocess.run([str(word) for word in words], capture_output=True, text=True, **options)  # type: ignore


def promised(command_end: str) -> str:
    """The output that the page shows below the command line that ends so."""
    found = re.search(
        rf"^```sh\n[^`]*{re.escape(command_end)}\n```\n\n```text\n(.*?)^```$", PAGE, re.M | re.S
    )
    assert found, f"the page shows no output of {command_end}"
    return found[1]


@pytest.fixture(scope="module")
def python_path() -> Iterator[Path]:
    """A build with the overlay of the page and with a folder of our own, given as a wheel build gives them."""
    with tempfile.TemporaryDirectory() as folder:
        own = Path(folder) / "our machine"
        own.mkdir()
        (own / "magnets.toml").write_text(NEW_COMMAND, encoding="utf-8")
        (own / "corrections.toml").write_text(CORRECTIONS, encoding="utf-8")
        build = Path(folder) / "build"
        overlays = f"{ROOT / 'examples' / 'overlay'};{own}"
        configured = run(
            [
                os.environ["VORLINKIT_CMAKE"], "-S", ROOT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
                "-DVORLINKIT_BUILD_TESTS=OFF", "-DVORLINKIT_BUILD_EXAMPLES=OFF",
                f"-DCMAKE_CXX_COMPILER={os.environ['VORLINKIT_CXX']}",
                f"-DCMAKE_CXX_FLAGS={os.environ['VORLINKIT_CXXFLAGS']} -O0",
                f"-DPython_EXECUTABLE={os.environ['VORLINKIT_PYTHON']}",
            ],
            env={**os.environ, "VORLINKIT_CATALOGUE_OVERLAY": overlays},
        )  # fmt: skip
        assert configured.returncode == 0, configured.stdout + configured.stderr
        assert "Command definitions corrected by: " in configured.stdout
        built = run([os.environ["VORLINKIT_CMAKE"], "--build", build])
        assert built.returncode == 0, built.stdout + built.stderr
        yield build / "python"
        shutil.rmtree(build)


def run_python(words: list[object], python_path: Path) -> str:
    done = run([sys.executable, *words], env={**os.environ, "PYTHONPATH": str(python_path)}, timeout=60)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout + done.stderr
    return done.stdout


def test_the_captured_payload_is_read_as_the_page_shows(python_path: Path) -> None:
    script = "examples/overlay/read_capture.py"
    assert run_python([ROOT / script], python_path) == promised(script)


def test_the_simulator_is_driven_as_the_page_shows(python_path: Path) -> None:
    script = "examples/overlay/try_simulator.py"
    drive = (
        "import runpy, sys\n"
        "from vorlinkit.simulator import SimulatorProcess\n"
        "with SimulatorProcess() as simulator:\n"
        "    sys.argv = [sys.argv[1], str(simulator.port)]\n"
        "    runpy.run_path(sys.argv[0], run_name='__main__')\n"
    )
    assert run_python(["-c", drive, ROOT / script], python_path) == promised(script)


def test_a_new_command_is_one_table_in_one_file(python_path: Path) -> None:
    run_python(["-c", USE_NEW_COMMAND], python_path)
    stub = (python_path / "vorlinkit_python.pyi").read_text(encoding="utf-8")
    assert "def decode_get_magnet_strength_notification(" in stub
