"""The first example, run as the README tells a new user to run it."""

import json
import os
import subprocess
import sys
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def run_example():
    command = [sys.executable, str(EXAMPLES / "run_first_session.py")]
    return subprocess.run(command, env=os.environ, capture_output=True, text=True, timeout=60)


def test_the_first_session_does_what_it_says_every_time():
    first, second = run_example(), run_example()
    assert (first.returncode, first.stderr) == (0, "")
    assert first.stdout == second.stdout
    lines = first.stdout.splitlines()
    messages = [json.loads(line[22:]) for line in lines if line[22:23] == "{"]
    assert messages[0] == {"ClientID": 1} == messages[-2]
    assert messages[1]["MachineType"] == "VorlinKit simulator" == messages[-1]["MachineType"]
    moved = [one["ActualMotorPosition"] for one in messages if "ActualMotorPosition" in one]
    assert moved == [0, 0, 100, 200, 300]
    assert any(line.startswith("the connection broke  Disconnected") for line in lines)
