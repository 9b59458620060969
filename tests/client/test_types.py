"""What a strict type checker says of calls: right ones pass, wrong pairings are found."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import vorlinkit

RIGHT = """\
from typing import assert_type
from vorlinkit import records
from vorlinkit.aio.methods import Methods as AsyncMethods
from vorlinkit.client.methods import Methods
def calls(ask: Methods) -> None:
    assert_type(ask.set_motor_position("AD1", 1, 300), records.SetMotorPositionResponse)
    assert_type(ask.get_machine_info(timeout=3).serial_number, str)
    ask.capture_frame_ex(["C"], [records.CaptureFrameExRequestCaptureOptionsItemCaptureStage(), ("CaptureStage", 5)])
    ask.upload_system_model("a", "b", b"x")
async def awaits(ask: AsyncMethods) -> None:
    assert_type((await ask.get_machine_info()).serial_number, str)
def mistakes(ask: Methods, later: AsyncMethods) -> None:
"""
WRONG = """\
    ask.set_motor_position("AD1", "1", 300)
    ask.set_motor_position("AD1", 1)
    ask.set_motor_position("AD1", 1, 300, notification_level=1)
    ask.capture_frame_ex([5])
    ask.get_machine_info().serial
    later.get_machine_info().serial_number
    records.GetMachineInfoRequest
"""


def test_wrong_calls_are_found(tmp_path: Path) -> None:
    built = Path(vorlinkit.__file__).parent.parent
    (tmp_path / "sample.py").write_text(RIGHT + WRONG)
    words = [sys.executable, "-m", "mypy", "--strict", "--hide-error-context", "sample.py"]
    done = subprocess.run(
        words, cwd=tmp_path, env={"MYPYPATH": str(built)}, capture_output=True, text=True, timeout=300
    )
    lines = [line.split(":") for line in done.stdout.splitlines() if ": error:" in line]
    found = [int(line[1]) for line in lines if line[0] == "sample.py"]
    right, wrong = RIGHT.count("\n"), WRONG.count("\n")
    assert found == list(range(right + 1, right + wrong + 1)), done.stdout + done.stderr
