"""The examples, run as a new user runs them."""

import json
import os
import subprocess
import sys
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def run_example(name):
    command = [sys.executable, str(EXAMPLES / name)]
    return subprocess.run(command, env=os.environ, capture_output=True, text=True, timeout=60)


def test_the_first_session_does_what_it_says_every_time():
    first, second = run_example("run_first_session.py"), run_example("run_first_session.py")
    assert (first.returncode, first.stderr) == (0, "")
    assert first.stdout == second.stdout
    lines = first.stdout.splitlines()
    messages = [json.loads(line[22:]) for line in lines if line[22:23] == "{"]
    assert messages[0] == {"ClientID": 1} == messages[-2]
    assert messages[1]["MachineType"] == "VorlinKit simulator" == messages[-1]["MachineType"]
    moved = [one["ActualMotorPosition"] for one in messages if "ActualMotorPosition" in one]
    assert moved == [0, 0, 100, 200, 300]
    assert any(line.startswith("the connection broke  Disconnected") for line in lines)


def test_settings_are_set_and_told():
    done = run_example("tune_sorting.py")
    assert (done.returncode, done.stderr) == (0, "")
    lines = done.stdout.splitlines()
    told = [json.loads(line.partition("told: ")[2]) for line in lines if "told: " in line]
    assert told[3]["ActualMotorPosition"] == 250
    assert [one["CurrentSensitivityLevel"] for one in told if "ClassName" in one] == [50, 50, 75]
    assert [one["CurrentRemovalLevel"] for one in told if "Defect" in one] == [3, 5]
    assert [one["SensitivityValue"] for one in told if "SensitivityValue" in one] == [40, 55]
    assert "    refused: Sensitivity level out of range; " in lines
