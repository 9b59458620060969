"""What a call's values become: the same bytes as the encoders make, or a refusal that names the field."""

from __future__ import annotations

import array
import enum
import inspect
from typing import Any

import pytest
from samples import argument, messages, wire_records
from vorlinkit import records
from vorlinkit.aio import methods as aio_methods
from vorlinkit.catalogue import Command, Message
from vorlinkit.client import backend, methods, plans
from vorlinkit.client.errors import EncodeError
from vorlinkit.client.layouts import catalogue, layouts
from vorlinkit.client.record_classes import from_wire
from vorlinkit.client.records import from_dict, to_dict
from vorlinkit.wire import coder

PLANS = {plan.name: plan for plan in plans.ALL}


class Level(enum.IntEnum):
    On = 1


class Recorder(methods.Methods, methods.SubscribeMethods):
    """Keeps what a method passes on."""

    def _call(self, *passed: Any) -> Any:
        return passed

    _subscribe = _call


def test_every_command_has_a_plan_and_a_method_in_both_faces() -> None:
    commands = catalogue().commands
    assert [(plan.id, plan.name, plan.effect) for plan in plans.ALL] == [
        (c.id, c.name, c.effect) for c in commands
    ]
    for command in commands:
        plan, called = PLANS[command.name], getattr(Recorder(), command.snake)
        values = dict(zip(plan.names, range(100), strict=False))
        returned = called(**values, timeout=5, check=False)
        assert returned == ((plan, tuple(values.values()), 5, False) if command.response else None)
        on_aio = getattr(aio_methods.Methods, command.snake)
        assert inspect.iscoroutinefunction(on_aio) and on_aio.__doc__ == called.__doc__
        assert inspect.signature(on_aio).parameters == inspect.signature(called.__func__).parameters
        notifies = command.notification is not None
        assert hasattr(methods.SubscribeMethods, command.snake) == notifies
        assert hasattr(aio_methods.SubscribeMethods, command.snake) == notifies


def test_parameters_that_may_be_left_out() -> None:
    ask, listen = methods.Methods, methods.SubscribeMethods
    called = Recorder()
    assert ask.get_motor_position(called, "A", 1) == (PLANS["GetMotorPosition"], ("A", 1, 0), None, True)
    # Its level stands first on the wire: by name alone, so that the others keep their order.
    assert ask.get_sensitivity_value(called, 1, 2, 3, 4, 5)[1] == (0, 1, 2, 3, 4, 5)
    assert listen.get_sensitivity_value(called, 1, 2, 3, 4, 5)[1] == (1, 1, 2, 3, 4, 5)
    assert listen.get_motor_position(called, "A", 1, timeout=2)[1:] == (("A", 1, 1), None, 1000, 2)
    assert listen.capture_frame_sequence(called, dataset_uuid="U")[1] == (None, None, "U", None, None)
    assert ask.capture_frame_ex(called, ["C"])[1] == (["C"], ())
    once = listen.start_capturable_signals(called, iter(["C1", "C2"]))[1]
    assert once == (("C1", "C2"), 1)


@pytest.mark.parametrize(
    ("command", "message"), [(c, m) for c, _, m in messages("request")], ids=lambda x: getattr(x, "name", "")
)
def test_every_request_is_encoded_as_the_encoders_do(command: Command, message: Message) -> None:
    plan, space, layout = PLANS[command.name], backend.records(), layouts()[message.type]
    for record in wire_records(message):
        payload = coder.encode(message.fields, record)
        for form in ("mapping", "tuple", "record"):
            values = tuple(argument(field, record, form, space) for field in layout.given)
            assert plan.encode(values) == payload, form
        request = from_dict(getattr(space, message.type), to_dict(from_wire(message.type, record)))
        assert getattr(space, f"encode_{command.snake}_request")(request) == payload


SET, UPLOAD, FRAME = PLANS["SetMotorPosition"], PLANS["UploadSystemModel"], PLANS["CaptureFrameEx"]
STEP = PLANS["SetVibratorCalibrationData"]
OPTION = "list_of_capture_options[0].capture_option"


@pytest.mark.parametrize(
    ("plan", "values", "payload"),
    [
        (SET, ("A\udcff", Level.On, 0x102), b"A\xff\0\1\1\2"),
        (UPLOAD, ("n", "v", bytearray(b"ab")), b"n\0v\0\0\0\0\2ab"),
        (UPLOAD, ("n", "v", memoryview(b"abcd")[::2].tobytes()), b"n\0v\0\0\0\0\2ac"),
        (UPLOAD, ("n", "v", array.array("H", [0])), b"n\0v\0\0\0\0\2\0\0"),
        (FRAME, (("C" for _ in range(2)), [("CaptureStage", 9)]), b"\2C\0C\0\1\6\x09"),
        (FRAME, ([], [("TriggeredCapture", ["a", "b"])]), b"\0\1\4\2a\0b\0"),
        (FRAME, ([], [{"capture_option": ("CaptureStage", {"stage": 9, "option_id": 6})}]), b"\0\1\6\x09"),
        (STEP, ("V", 1, 2, 3, [[4, 5]]), b"V\0\0\1\0\2\0\3\1\4\0\5"),
    ],
)
def test_values_in_other_forms(plan: Any, values: tuple[Any, ...], payload: bytes) -> None:
    assert plan.encode(values) == payload


@pytest.mark.parametrize(
    ("plan", "values", "field", "words"),
    [
        (SET, ("A\0", 1, 2), "automated_device_id", "text without a 0 character"),
        (SET, (b"A", 1, 2), "automated_device_id", "text"),
        (SET, ("\ud800", 1, 2), "automated_device_id", "text"),
        (SET, ("A", 256, 2), "attached_motor_number", "0 to 255, not 256"),
        (SET, ("A", -1, 2), "attached_motor_number", "0 to 255"),
        (SET, ("A", True, 2), "attached_motor_number", "not True"),
        (SET, ("A", 1, 2.0), "motor_position", "a whole number from 0 to 65535, not 2.0"),
        (SET, ("A", 1, None), "motor_position", "not None"),
        (UPLOAD, ("n", "v", "text"), "system_model", "bytes"),
        (UPLOAD, ("n", "v", 3), "system_model", "bytes"),
        (FRAME, ("C1", ()), "list_of_capturables", "iterable"),
        (FRAME, ([1], ()), "list_of_capturables[0].capturable_id", "text"),
        (FRAME, (["x"] * 256, ()), "list_of_capturables", "at most 255 items (these are 256)"),
        (FRAME, ([{"capturable": "C"}], ()), "list_of_capturables[0]", "did you mean capturable_id?"),
        (FRAME, ([{}], ()), "list_of_capturables[0]", "capturable_id is missing"),
        (STEP, ("V", 1, 2, 3, [(4,)]), "list_of_calibration_points[0]", "2 values (feed_rate, drive_level)"),
        (STEP, ("V", 1, 2, 3, [4]), "list_of_calibration_points[0]", "its values by name or in order"),
        (FRAME, ([], [("CaptureStag", 1)]), OPTION, "did you mean CaptureStage?"),
        (FRAME, ([], [("CaptureStage", 300)]), f"{OPTION}.stage", "0 to 255"),
        (FRAME, ([], [("CaptureStage", {"stage": 1, "option_id": 3})]), f"{OPTION}.option_id", "takes 6"),
        (FRAME, ([], [5]), OPTION, "the alternatives are CapturePresenceOnly, TriggeredCapture"),
        (
            FRAME,
            ([], [("TriggeredCapture", {"list_of_classifications": ["a"], "number_of_classifications": 2})]),
            f"{OPTION}.number_of_classifications",
            "takes 1",
        ),
    ],
)
def test_refusals(plan: Any, values: tuple[Any, ...], field: str, words: str) -> None:
    with pytest.raises(EncodeError) as caught:
        plan.encode(values)
    error = caught.value
    assert (error.command, error.field) == (plan.name, field)
    assert str(error).startswith(f"{plan.name}: {field} takes ") and words in str(error)


def test_a_selecting_number_that_was_forgotten_is_set() -> None:
    option = records.CaptureFrameExRequestCaptureOptionsItemCaptureStage()
    option.stage = 4
    item = records.CaptureFrameExRequestCaptureOptionsItem()
    item.capture_option = option
    assert (option.option_id, FRAME.encode(([], [item, option]))) == (0, b"\0\2\6\4\6\4")


@pytest.mark.parametrize(
    ("plan", "values", "payload", "fits"),
    [
        (SET, ("A", 1, 300), b"\0\0A\0\1\0\5", True),  # what became of the position may differ
        (SET, ("A", 1, 300), b"\0\0B\0\1\0\5", False),
        (SET, ("A", 1, 300), b"\0\0A\0\2\0\5", False),
        (SET, ("A", 1, 300), b"\0\1\0\0\0\0", True),  # a refusal that repeats nothing
        (SET, ("A", 1, 300), b"\0\1B\0\0\0\0", False),
        (PLANS["GetStatistics"], (2, 0), b"\0\0\2\0\0", True),
        (PLANS["GetStatistics"], (3, 0), b"\0\0\2\0\0", False),
    ],
)
def test_answers_to_another_request(plan: Any, values: tuple[Any, ...], payload: bytes, fits: bool) -> None:
    assert plan.echoes(values, plan.decode_response(payload)) is fits


@pytest.mark.parametrize(
    ("plan", "values", "payload", "fits"),
    [
        (PLANS["GetMotorPosition"], ("A", 1, 1), b"A\0\1\0\0\0\0", True),
        (PLANS["GetMotorPosition"], ("A", 1, 1), b"A\0\2\0\0\0\0", False),
        (
            PLANS["StartCapturableSignals"],
            (["C1", {"capturable_id": "C2"}, ("C3",)], 1),
            b"C2\0" + bytes(20),
            True,
        ),
        (PLANS["StartCapturableSignals"], (["C1"], 1), b"C2\0" + bytes(20), False),
        (PLANS["CaptureFrameSequence"], (None, None, None, None, None), b"U\0" + bytes(20), True),
    ],
)
def test_notifications_about_something_else(
    plan: Any, values: tuple[Any, ...], payload: bytes, fits: bool
) -> None:
    assert plan.concerns(plan.address_of(values), plan.decode_notification(payload)) is fits


def test_errors_in_words() -> None:
    assert SET.error_texts(0x12) == (
        "Closed Loop Control Active",
        "Motor Position limited by Device",
        "Unknown (0x0010)",
    )
    assert SET.error_texts(0) == PLANS["NoOpCommand"].error_texts(0) == ()
