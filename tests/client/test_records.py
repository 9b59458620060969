"""Records as plain data, and the record classes in pure Python beside those of the extension module."""

from __future__ import annotations

import copy
import csv
import io
import json
import os
import pickle
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
from samples import as_value, messages, wire_records
from vorlinkit import records
from vorlinkit.catalogue import Command, Message, MessageKind
from vorlinkit.client import backend, plans, record_classes
from vorlinkit.client.errors import DecodeError
from vorlinkit.client.records import from_dict, from_json, rows, to_dict, to_json
from vorlinkit.wire import coder

PLANS = {plan.name: plan for plan in plans.ALL}
ANSWERS = messages("response", "notification")
SPACES = [record_classes] + ([backend.records()] if backend.name() == "native" else [])


def decoded(space: Any, command: Command, kind: MessageKind, payload: bytes) -> Any:
    return getattr(space, f"decode_{command.snake}_{kind}")(payload)


@pytest.mark.parametrize(("command", "kind", "message"), ANSWERS, ids=lambda x: getattr(x, "type", ""))
def test_every_answer_becomes_plain_data_and_back(
    command: Command, kind: MessageKind, message: Message
) -> None:
    for wire in wire_records(message):
        payload = coder.encode(message.fields, wire)
        found = []
        for space in SPACES:
            record = decoded(space, command, kind, payload)
            plain, text = to_dict(record), to_json(record, describe=True)
            assert to_dict(from_dict(type(record), plain)) == plain
            assert text.isascii() and to_dict(from_json(type(record), text)) == plain
            table = rows(record)
            assert all(row.keys() == table[0].keys() for row in table)
            found.append((plain, text, table, getattr(space, f"{command.snake}_{kind}_to_json")(record)))
        assert found[0] == found[-1]
        pure = decoded(record_classes, command, kind, payload)
        assert (
            pure
            == pickle.loads(pickle.dumps(pure))
            == copy.copy(pure)
            == from_dict(type(pure), to_dict(pure))
        )


def test_fields_of_every_kind_in_every_place(tmp_path: Path) -> None:
    """The same with the catalogue that has them all; a run of its own, as a program knows one catalogue."""
    root, made = Path(__file__).parents[2], tmp_path / "catalogue.json"
    kinds = root / "tests" / "commands" / "every_kind"
    subprocess.run(
        [sys.executable, "-m", "generator", "--catalogue", kinds, "--json", made], cwd=root, check=True
    )
    same = ["-k", "becomes_plain_data", __file__, "-p", "no:cacheprovider", "-q"]
    environment = os.environ | {"VORLINKIT_CATALOGUE": str(made), "VORLINKIT_BACKEND": "python"}
    done = subprocess.run(
        [sys.executable, "-m", "pytest", *same], env=environment, capture_output=True, text=True
    )
    assert done.returncode == 0, done.stdout


@pytest.mark.parametrize(("command", "kind", "message"), ANSWERS, ids=lambda x: getattr(x, "type", ""))
def test_every_answer_that_is_cut_short_says_where(
    command: Command, kind: MessageKind, message: Message
) -> None:
    payload = coder.encode(message.fields, next(wire_records(message)))
    for size in {0, len(payload) // 2, len(payload) - 1} - {len(payload)}:
        with pytest.raises(DecodeError) as caught:
            getattr(PLANS[command.name], f"decode_{kind}")(payload[:size])
        error = caught.value
        assert error.field and error.field in str(error) and 0 <= error.offset <= size
        assert (error.command, error.payload, error.standing) == (
            command.name,
            payload[:size],
            message.standing,
        )


@pytest.mark.parametrize(
    ("name", "kind", "payload", "field", "offset"),
    [
        ("GetAttachedMotors", "response", b"\0\0A\0\2\1\3\2", "listOfMotors[1].MotorType", 8),
        (
            "GetAutomatedDevices",
            "response",
            b"\0\0\xff\xffA\0\1B",
            "listOfAutomatedDevices[1].AutomatedDeviceID",
            7,
        ),
        ("GetStatistics", "response", b"\0\0\x63", "StatisticsID", 2),
        ("CaptureFrame", "notification", b"\0" * 6 + b"\xff" * 4 + b"abc", "Frame", None),
        ("GetDataDump", "notification", b"\0\0" + b"\xff" * 30, "FileName", None),
    ],
)
def test_where_decoding_failed(name: str, kind: str, payload: bytes, field: str, offset: int | None) -> None:
    with pytest.raises(DecodeError) as caught:
        getattr(PLANS[name], f"decode_{kind}")(payload)
    assert caught.value.field == field
    assert offset is None or caught.value.offset == offset


def motors() -> Any:
    return backend.records().decode_get_attached_motors_response(b'\0\2A"\xff\0\2\1\3\2\5')


def test_json_is_json() -> None:
    text = to_json(motors(), describe=True, indent=1)
    assert json.loads(text) == {
        "command_error": 2,
        "command_error_desc": "Unknown (0x0002); ",
        "automated_device_id": 'A"\udcff',
        "number_of_motors": 2,
        "list_of_motors": [
            {"attached_motor_number": 1, "motor_type": 3},
            {"attached_motor_number": 2, "motor_type": 5},
        ],
    }


def test_blobs_in_json() -> None:
    request = records.UploadSystemModelRequest
    record = from_dict(
        request, {"system_model_name": "n", "system_model_version": "v", "system_model": b"\0\xff"}
    )
    assert json.loads(to_json(record))["system_model"] == "AP8="
    assert from_json(request, to_json(record)).system_model_bytes == b"\0\xff"
    left_out = from_json(request, to_json(record, blobs="omit"))
    assert (left_out.system_model_bytes, left_out.system_model_size) == (b"", 2)


def test_what_follows_from_other_values_may_be_left_out() -> None:
    point: dict[str, Any] = {
        "capture_option": {
            "alternative": "TriggeredCapture",
            "list_of_classifications": [{"classification": "x"}],
        }
    }
    record = from_dict(
        records.CaptureFrameExRequest, {"list_of_capturables": [], "list_of_capture_options": [point]}
    )
    option: Any = record.list_of_capture_options[0].capture_option
    assert (record.number_of_capture_options, option.option_id, option.number_of_classifications) == (1, 4, 1)
    chosen = from_dict(
        records.CaptureFrameExRequestCaptureOptionsItem, {"capture_option": {"option_id": 6, "stage": 2}}
    )
    assert to_dict(chosen) == {"capture_option": {"alternative": "CaptureStage", "option_id": 6, "stage": 2}}


@pytest.mark.parametrize(
    ("name", "values", "words"),
    [
        ("FlushLogRequest", {}, "log_name is missing"),
        ("FlushLogRequest", {"log_name": "x", "logname": "y"}, "no 'logname'; it has log_name"),
        ("FlushLogRequest", {"log_name": 5}, "5"),
        (
            "CaptureFrameExRequestCaptureOptionsItem",
            {"capture_option": {"stage": 1}},
            "one of CapturePresenceOnly",
        ),
        ("GetAttachedMotorsResponseMotorsItem", {"attached_motor_number": 1, "motor_type": 256}, "256"),
    ],
)
def test_dicts_that_are_no_record(name: str, values: dict[str, Any], words: str) -> None:
    with pytest.raises((ValueError, TypeError), match=words):
        from_dict(getattr(records, name), values)


def test_rows_of_a_table() -> None:
    space = backend.records()
    assert rows(motors()) == [
        {"command_error": 2, "automated_device_id": 'A"\udcff', "attached_motor_number": 1, "motor_type": 3},
        {"command_error": 2, "automated_device_id": 'A"\udcff', "attached_motor_number": 2, "motor_type": 5},
    ]
    assert rows(space.decode_get_attached_motors_response(b"\0\0A\0\0")) == []
    lamp = rows(space.decode_get_statistics_response(b"\0\0\2\1L1\0\0\0\0\7"))
    assert [
        (row["statistics_data"], row["statistics_id"], row["lamp_id"], row["use_time"]) for row in lamp
    ] == [("LampUse", 2, "L1", 7)]
    # Lists inside lists: an inner one that is empty keeps its parent's row.
    software = to_dict(space.GetSoftwareVersionsResponse()) | {
        "copyright_message": "(c)",
        "list_of_components": [
            {
                "component_name": "one",
                "list_of_lists": [{"list_name": "l", "list_of_items": [{"item": "a"}, {"item": "b"}]}],
            },
            {"component_name": "two", "list_of_lists": []},
        ],
    }
    table = rows(from_dict(space.GetSoftwareVersionsResponse, software))
    assert [tuple(row.values()) for row in table] == [
        ("(c)", "one", "l", "a"),
        ("(c)", "one", "l", "b"),
        ("(c)", "two", None, None),
    ]
    out = io.StringIO()
    csv.DictWriter(out, table[0]).writerows(table)
    assert out.getvalue().count("\r\n") == 3


def test_rows_of_lists_beside_each_other() -> None:
    message = next(m for _, _, m in ANSWERS if m.type == "GetCapturableInfoResponse")
    record = as_value(next(wire_records(message)), message.type, "record", backend.records())
    table = rows(record)
    assert [(row["colour_name"] is None, row["option_id"] is None) for row in table] == [
        (False, True)
    ] * 2 + [(True, False)] * 2


# -- the classes in pure Python -----------------------------------------------------------------------


def test_a_record_in_pure_python_is_made_by_keyword_and_keeps_copies() -> None:
    item = record_classes.GetAttachedMotorsResponseMotorsItem(attached_motor_number=1)
    record = record_classes.GetAttachedMotorsResponse(automated_device_id=b"A\xff", list_of_motors=[item])
    item.motor_type = 9
    assert record.list_of_motors[0].motor_type == 0
    record.list_of_motors[0].motor_type = 7
    record.list_of_motors.append(item)
    assert repr(record) == (
        "GetAttachedMotorsResponse(command_error=0, automated_device_id='A\\udcff', number_of_motors=0, "
        "list_of_motors=[GetAttachedMotorsResponseMotorsItem(attached_motor_number=1, motor_type=7)])"
    )
    other = copy.deepcopy(record)
    other.list_of_motors[0].motor_type = 8
    assert record != other and record.list_of_motors[0].motor_type == 7


def test_a_blob_in_pure_python_is_bytes_and_items() -> None:
    request = record_classes.UploadSystemModelRequest(system_model_bytes=b"ab")
    assert [
        item.system_model_byte if hasattr(item, "system_model_byte") else item
        for item in request.system_model
    ]
    request.system_model = request.system_model[::-1]
    assert request.system_model_bytes == b"ba" and "system_model_bytes=b'ba'" in repr(request)


@pytest.mark.parametrize(
    ("name", "values", "words"),
    [
        ("FlushLogResponse", {"command_error": 65536}, "int of 0 to 65535"),
        ("FlushLogResponse", {"command_error": 1.0}, "int of"),
        ("FlushLogResponse", {"command_eror": 1}, "did you mean command_error?"),
        ("FlushLogRequest", {"log_name": 5}, "str"),
        ("GetAttachedMotorsResponse", {"list_of_motors": [5]}, "sequence"),
        ("GetAttachedMotorsResponse", {"list_of_motors": iter([])}, "sequence"),
        ("UploadSystemModelRequest", {"system_model_bytes": "text"}, "bytes"),
        ("CaptureFrameExRequestCaptureOptionsItem", {"capture_option": 5}, "alternatives"),
    ],
)
def test_what_a_record_in_pure_python_refuses(name: str, values: dict[str, Any], words: str) -> None:
    with pytest.raises(TypeError, match=words):
        getattr(record_classes, name)(**values)


def test_functions_in_pure_python() -> None:
    assert record_classes.FLUSH_LOG_COMMAND_ID == 49
    assert record_classes.flush_log_command_error_string(5) == "Invalid log name; Unknown (0x0004); "
    assert record_classes.get_server_status_restart_status_string(1) == "Power Down"
    codes = record_classes.flush_log_command_error_codes()
    assert (codes.kind.name, [row.code for row in codes.values]) == ("Bitfield", [1, 2])
    for call in (
        lambda: record_classes.decode_flush_log_response(bytearray(2)),
        lambda: record_classes.encode_flush_log_request(5),
        lambda: record_classes.flush_log_command_error_string(65536),
    ):
        with pytest.raises(TypeError):
            call()
    with pytest.raises(AttributeError):
        record_classes.FlushLogs  # noqa: B018
