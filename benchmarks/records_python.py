"""Records in Python beside the same work done by hand with `struct`, in one run.

  PYTHONPATH=build/release/python python3 benchmarks/records_python.py

Each row decodes a payload and reads every field of it. The ratio is ours to the hand-written row's.
Other modules with the same decoders can be named on the command line; they become further columns.
"""

from __future__ import annotations

import importlib
import json
import struct
import sys
import time
from collections.abc import Callable
from typing import Any

import vorlinkit_python

SMALL = b"\x00\x03"
MOTORS = b"\x00\x00AD1\x00\xc8" + bytes(400)
FRAME = bytes(range(256)) * 4096
FRAME_PAYLOAD = struct.pack(">H7sQHHI", 1, b"camera\0", 0, 1024, 1024, len(FRAME)) + FRAME


def best(acts: list[Callable[[], object]], repeats: int = 15, at_least: float = 0.01) -> list[float]:
    """Seconds per call of each, from the quietest of several rounds; the rounds take turns."""
    counts = [how_many(act, at_least) for act in acts]
    seconds = [float("inf")] * len(acts)
    for _ in range(repeats):
        for place, (act, count) in enumerate(zip(acts, counts, strict=True)):
            seconds[place] = min(seconds[place], timed(act, count) / count)
    return seconds


def how_many(act: Callable[[], object], at_least: float) -> int:
    count = 1
    while timed(act, count) < at_least:
        count *= 2
    return count


def timed(act: Callable[[], object], count: int) -> float:
    start = time.perf_counter()
    for _ in range(count):
        act()
    return time.perf_counter() - start


def small(module: Any) -> Callable[[], object]:
    decode = module.decode_flush_log_response
    return lambda: decode(SMALL).command_error


def small_by_hand() -> object:
    (command_error,) = struct.unpack_from(">H", SMALL)
    return command_error


def motors(module: Any) -> Callable[[], object]:
    decode = module.decode_get_attached_motors_response

    def act() -> None:
        response = decode(MOTORS)
        response.command_error  # noqa: B018
        response.automated_device_id  # noqa: B018
        response.number_of_motors  # noqa: B018
        for motor in response.list_of_motors:
            motor.attached_motor_number  # noqa: B018
            motor.motor_type  # noqa: B018

    return act


def motors_by_hand() -> None:
    (command_error,) = struct.unpack_from(">H", MOTORS)
    end = MOTORS.index(0, 2)
    _device, count, place = MOTORS[2:end].decode(), MOTORS[end + 1], end + 2
    found = []
    for _ in range(count):
        found.append(struct.unpack_from(">BB", MOTORS, place))
        place += 2
    for number, kind in found:
        number  # noqa: B018
        kind  # noqa: B018


def frame(module: Any) -> Callable[[], object]:
    decode = module.decode_capture_frame_ex_notification

    def act() -> None:
        for item in decode(FRAME_PAYLOAD).frame:
            item.frame_data_byte  # noqa: B018

    return act


class Item:
    __slots__ = ("frame_data_byte",)

    def __init__(self, byte: int) -> None:
        self.frame_data_byte = byte


def frame_by_hand() -> None:
    for item in [Item(byte) for byte in FRAME_PAYLOAD[-len(FRAME) :]]:
        item.frame_data_byte  # noqa: B018


def frame_bytes() -> object:
    return vorlinkit_python.decode_capture_frame_ex_notification(FRAME_PAYLOAD).frame_bytes


def encode() -> Callable[[], object]:
    request = vorlinkit_python.FlushLogRequest()

    def act() -> bytes:
        request.log_name = "Events"
        return vorlinkit_python.encode_flush_log_request(request)

    return act


def encode_by_hand() -> Callable[[], object]:
    name = "Events"
    return lambda: struct.pack("7s", name.encode())


def render() -> Callable[[], object]:
    response = vorlinkit_python.decode_get_attached_motors_response(MOTORS)
    return lambda: vorlinkit_python.get_attached_motors_response_to_json(response)


def render_by_hand() -> Callable[[], object]:
    items = [{"AttachedMotorNumber": 0, "MotorType": 0} for _ in range(200)]
    head = {
        "CommandError": 0,
        "CommandError_Desc": "Success",
        "AutomatedDeviceID": "AD1",
        "NumberOfMotors": 200,
    }
    return lambda: json.dumps(head | {"listOfMotors": items})


def main() -> None:
    others = [importlib.import_module(name) for name in sys.argv[1:]]
    assert len(frame_bytes()) == len(FRAME)
    rows: list[tuple[str, Callable[[], object], Callable[[], object], Any]] = [
        ("2-byte response", small(vorlinkit_python), small_by_hand, small),
        ("200 motors", motors(vorlinkit_python), motors_by_hand, motors),
        ("1 MiB frame as items", frame(vorlinkit_python), frame_by_hand, frame),
        ("1 MiB frame as bytes", frame_bytes, lambda: FRAME_PAYLOAD[-len(FRAME) :], None),
        ("write and encode a name", encode(), encode_by_hand(), None),
        ("200 motors to JSON", render(), render_by_hand(), None),
    ]
    print("| us | vorlinkit_python | by hand | ratio |" + "".join(f" {each.__name__} |" for each in others))
    print("|---|---|---|---|" + "---|" * len(others))
    for name, ours, hand, same in rows:
        mine, peer, *rest = best([ours, hand, *(same(each) for each in others if same)])
        cells = [f"{each * 1e6:.2f}" for each in rest] or [""] * len(others)
        figures = [f"{mine * 1e6:.2f}", f"{peer * 1e6:.2f}", f"{mine / peer:.2f}", *cells]
        print(f"| {name} |" + "".join(f" {figure} |" for figure in figures))


if __name__ == "__main__":
    main()
