"""The C++ example as a user starts it: a program of its own, against a machine that is a process of its own."""

import json
import os
import subprocess

from vorlinkit.simulator import SimulatorProcess

PROGRAM = os.environ["VORLINKIT_FIRST_SESSION"]


def run(*arguments: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=60)


def test_the_session_takes_its_course() -> None:
    with SimulatorProcess("--clock", "1767225600") as simulator:
        done = run(simulator.host, str(simulator.port))
        assert (done.returncode, done.stderr) == (0, "")
        said = dict(line.split(": ", 1) for line in done.stdout.splitlines())
        messages = {title: json.loads(text) for title, text in said.items()}
        assert messages["client id"] == {"ClientID": 1}
        assert messages["machine"]["MachineType"] == "VorlinKit simulator"
        assert messages["take control"]["CommandError_Desc"] == "Success"
        assert messages["clock"] == {"Timestamp": 1767225600}
        assert messages["set the clock"]["CommandError"] == 0
        assert messages["notification"]["AutomatedDeviceID"] == "AD1"
        assert messages["release control"]["CommandError_Desc"] == "Success"


def test_an_error_is_told_and_ends_it() -> None:
    with SimulatorProcess(rules=["command=GetMachineInfo reset"]) as simulator:
        broken = run(simulator.host, str(simulator.port))
        assert broken.returncode == 1 and broken.stderr.startswith("Disconnected: ")
        nobody = run(simulator.host, "1")
        assert (nobody.returncode, nobody.stderr) == (1, "Failed to connect: Connection refused\n")
