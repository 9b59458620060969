"""The typing stub: a strict type checker accepts it and finds a mistake, and it tells the truth."""

import os
import subprocess
import sys
from pathlib import Path

import pytest
import vorlinkit_python

pytest.importorskip("mypy")
BUILT = Path(vorlinkit_python.__file__).parent

# Every kind of function and of attribute; the rest of the stub is made alike.
SAMPLE = """
from typing import assert_type
import vorlinkit_python as v
from vorlinkit_python import CaptureFrameExRequestCapturablesItem as Item
from vorlinkit_python import CaptureFrameExRequestCaptureOptionsItemTriggeredCapture as Triggered
assert_type(v.CAPTURE_FRAME_EX_COMMAND_ID, int)
assert_type(v.flush_log_command_error_string(1), str)
assert_type(v.flush_log_command_error_codes().values[0].description, str)
request = v.CaptureFrameExRequest()
assert_type(v.encode_capture_frame_ex_request(request), bytes)
assert_type(v.capture_frame_ex_request_to_json(request), str)
request.number_of_capturables = assert_type(request.number_of_capturables, int)
request.list_of_capturables = assert_type(request.list_of_capturables, list[Item])
request.list_of_capturables = (Item(),)
request.list_of_capturables[0].capturable_id = assert_type(Item().capturable_id, str)
request.list_of_capture_options[0].capture_option = Triggered()
notification = v.decode_capture_frame_ex_notification(b"")
assert_type(v.capture_frame_ex_notification_to_json(notification), str)
notification.frame_bytes = assert_type(notification.frame_bytes, bytes)
assert_type(notification.frame[0].frame_data_byte, int)
fault = v.GetFaultsGeneralNotificationFaultsItem()
fault.fault_id = assert_type(fault.fault_id, str)
"""
MISTAKES = """
v.FlushLogRequest().log_name = 5
v.GetAttachedMotorsResponse().list_of_motors = [v.FlushLogRequest()]
v.CaptureFrameExRequestCaptureOptionsItem().capture_option = v.FlushLogRequest()
v.encode_flush_log_request(b'')
v.FlushLogRequest().logname
"""


def check(arguments, folder):
    environment = {**os.environ, "MYPYPATH": str(BUILT), "PYTHONPATH": str(BUILT)}
    command = [sys.executable, "-m", *arguments]
    return subprocess.run(command, cwd=folder, env=environment, capture_output=True, text=True, timeout=300)


def test_uses_are_typed_and_mistakes_are_found(tmp_path):
    (tmp_path / "sample.py").write_text(SAMPLE + MISTAKES)
    result = check(["mypy", "--strict", "--hide-error-context", "sample.py"], tmp_path)
    found = [int(line.split(":")[1]) for line in result.stdout.splitlines() if ": error:" in line]
    first = SAMPLE.count("\n") + 2
    assert found == list(range(first, first + 5)), result.stdout[-3000:] + result.stderr


def test_stub_and_module_agree(tmp_path):
    result = check(["mypy.stubtest", "vorlinkit_python", "--concise"], tmp_path)
    lines = result.stdout.splitlines()
    assert lines, result.stderr
    # Classes of the binding library have a metaclass of its own, which no stub can name.
    assert [line for line in lines if not line.endswith("is inconsistent, metaclass differs")] == []
