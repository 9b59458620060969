"""The module works in every CPython 3.11 that this computer has, not only in the one it was built with."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

WHO = "import platform, sys; print(platform.python_implementation(), *sys.version_info[:2], sys.executable)"
SESSION = """
import sys
import vorlinkit_python as vorlin
from vorlinkit.simulator import SimulatorProcess

with SimulatorProcess() as simulator:
    config = vorlin.SessionConfig()
    config.host, config.port = simulator.host, simulator.port
    session = vorlin.VorlinSession(config)
    assert session.connect() == (True, "")
    payload, _ = session.send(vorlin.GET_MACHINE_INFO_COMMAND_ID)
    print(vorlin.decode_get_machine_info_response(payload).machine_type, sys.executable)
"""


def interpreters() -> list[str]:
    """Every CPython 3.11, by the file that is really run."""
    found: dict[Path, str] = {}
    for words in filter(
        None, map(shutil.which, (sys.executable, "/usr/bin/python3", "python3", "python3.11"))
    ):
        told = subprocess.run([words, "-c", WHO], capture_output=True, text=True)
        implementation, *version, executable = told.stdout.strip().split(maxsplit=3) or [""]
        if (implementation, version) == ("CPython", ["3", "11"]):
            found.setdefault(Path(executable).resolve(), executable)
    return list(found.values())


@pytest.mark.parametrize("python", interpreters())
def test_a_session_runs(python: str) -> None:
    done = subprocess.run([python, "-c", SESSION], env=os.environ, capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    machine, _, executable = done.stdout.strip().rpartition(" ")
    assert (machine, executable) == ("VorlinKit simulator", python)
