"""The typing stub: a strict type checker accepts every block and finds a mistake, and it tells the truth."""

import os
import subprocess
import sys

import vorlinkit_python

BUILT = os.path.dirname(vorlinkit_python.__file__)


def check(arguments, folder):
    environment, command = {"MYPYPATH": BUILT, "PYTHONPATH": BUILT}, [sys.executable, "-m", *arguments]
    how = {"cwd": folder, "env": os.environ | environment, "capture_output": True, "text": True}
    return subprocess.run(command, **how, timeout=300)


# Every kind of attribute and function; they all come from one emitter, which knows kinds only.
SAMPLE = """\
import copy
from typing import assert_type
import vorlinkit_python as v
assert_type(v.CAPTURE_FRAME_EX_COMMAND_ID, int)
request = v.CaptureFrameExRequest()
assert_type(v.encode_capture_frame_ex_request(request), bytes)
assert_type(v.capture_frame_ex_request_to_json(request), str)
request.number_of_capturables = assert_type(request.number_of_capturables, int)
items = assert_type(request.list_of_capturables, list[v.CaptureFrameExRequestCapturablesItem])
request.list_of_capturables = (v.CaptureFrameExRequestCapturablesItem(),)
items[0].capturable_id = assert_type(items[0].capturable_id, str)
frame = assert_type(v.decode_capture_frame_ex_notification(b""), v.CaptureFrameExNotification)
frame.frame_bytes = assert_type(frame.frame_bytes, bytes)
assert_type(frame.frame[0].frame_data_byte, int)
point = v.GetArchiveStatisticsResponseDataPointsItem()
use = v.GetArchiveStatisticsResponseDataPointsItemLampUse()
point.archived_data_point = use
assert_type(use.list_of_lamps[0].use_time, int)
assert_type(v.flush_log_command_error_string(1), str)
frame = v.CaptureFrameExNotification(frame_size=1, frame_bytes=b"x", frame=[frame.frame[0]])
assert_type(copy.copy(v.GetArchiveStatisticsResponseDataPointsItem(archived_data_point=use)) == point, bool)
assert_type(v.flush_log_command_error_codes().values[0].description, str)
"""
MISTAKES = """\
v.FlushLogRequest().log_name = 5
v.GetAttachedMotorsResponse().list_of_motors = [v.FlushLogRequest()]
v.CaptureFrameExRequestCaptureOptionsItem().capture_option = v.FlushLogRequest()
v.encode_flush_log_request(b'')
v.FlushLogRequest().logname
v.FlushLogRequest("Events")
v.FlushLogRequest(logname="Events")
v.FlushLogRequest(log_name=5)
"""


def test_the_blocks_are_typed_and_mistakes_are_found(tmp_path):
    (tmp_path / "sample.py").write_text(SAMPLE + MISTAKES)
    result = check(["mypy", "--strict", "--hide-error-context", "sample.py"], tmp_path)
    found = [int(line.split(":")[1]) for line in result.stdout.splitlines() if ": error:" in line]
    fine, wrong = SAMPLE.count("\n"), MISTAKES.count("\n")
    assert found == list(range(fine + 1, fine + wrong + 1)), result.stdout[-3000:] + result.stderr


def test_stub_and_module_agree(tmp_path):
    result = check(["mypy.stubtest", "vorlinkit_python", "--concise"], tmp_path)
    lines = result.stdout.splitlines()
    assert lines, result.stderr
    # Classes of the binding library have a metaclass of its own, which no stub can name.
    assert [line for line in lines if not line.endswith("is inconsistent, metaclass differs")] == []
