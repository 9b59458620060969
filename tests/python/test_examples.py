"""The examples, run as a new user runs them, in every CPython 3.11 that this computer has."""

import json
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
WHO = "import platform, sys; print(platform.python_implementation(), *sys.version_info[:2], sys.executable)"


def interpreters() -> list[str]:
    """Every CPython 3.11, by the file that is really run."""
    found: dict[Path, str] = {}
    for name in (sys.executable, "/usr/bin/python3", "python3", "python3.11"):
        if words := shutil.which(name):
            told = subprocess.run([words, "-c", WHO], capture_output=True, text=True).stdout
            if told.startswith("CPython 3 11 "):
                executable = told.strip().split(maxsplit=3)[3]
                found.setdefault(Path(executable).resolve(), executable)
    return list(found.values())


def run_example(name, python=sys.executable):
    done = subprocess.run([python, str(EXAMPLES / name)], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.splitlines()


@pytest.mark.parametrize("python", interpreters())
def test_the_first_session_does_what_it_says_every_time(python):
    lines = run_example("run_first_session.py", python)
    assert lines == run_example("run_first_session.py", python)
    assert any(line.startswith("the connection broke  Disconnected") for line in lines)


def test_settings_are_set_and_told():
    lines = run_example("tune_sorting.py")
    told = [json.loads(line.partition("told: ")[2]) for line in lines if "told: " in line]
    assert told[3]["ActualMotorPosition"] == 250
    assert [one["CurrentSensitivityLevel"] for one in told if "ClassName" in one] == [50, 50, 75]
    assert [one["CurrentRemovalLevel"] for one in told if "Defect" in one] == [3, 5]
    assert [one["SensitivityValue"] for one in told if "SensitivityValue" in one] == [40, 55]
    assert "    refused: Sensitivity level out of range; " in lines
