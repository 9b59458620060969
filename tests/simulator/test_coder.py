"""The simulator's own coder: known bytes of settled layouts, and a round trip of every message."""

from __future__ import annotations

from collections.abc import Sequence

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from strategies import records
from vorlinkit.catalogue import Catalogue, Command, Field
from vorlinkit.simulator.state.plausible import Plausible
from vorlinkit.wire.coder import PayloadError, decode, encode, uuid_text
from vorlinkit.wire.render import describe_bits, describe_enum, to_json

TEXTS = {
    "Not enough bytes for uint8",
    "Not enough bytes for uint16",
    "Not enough bytes for uint32",
    "Not enough bytes for uuid",
    "String not null-terminated",
    "Unknown variant",
}


def response_of(catalogue: Catalogue, name: str) -> tuple[Command, Sequence[Field]]:
    command = catalogue.named(name)
    assert command.response is not None
    return command, command.response.fields


def test_settled_layout_to_the_byte(catalogue: Catalogue) -> None:
    command, fields = response_of(catalogue, "GetAttachedMotors")
    payload = bytes.fromhex("00 00 41 44 31 00 02 01 03 02 05")
    record, left_over = decode(fields, payload)
    assert left_over == 0
    assert to_json(command, fields, record) == (
        '{"CommandError": 0, "CommandError_Desc": "Success", "AutomatedDeviceID": "AD1", '
        '"NumberOfMotors": 2, "listOfMotors": [{"AttachedMotorNumber": 1, "MotorType": 3}, '
        '{"AttachedMotorNumber": 2, "MotorType": 5}]}'
    )
    assert encode(fields, record) == payload


@pytest.mark.parametrize(
    ("name", "payload", "text"),
    [
        ("GetAttachedMotors", "00 00 41 44 31 00 02 01 03 02", "Not enough bytes for uint8"),
        ("GetAttachedMotors", "00 00 41 44 31", "String not null-terminated"),
        ("GetAttachedMotors", "00", "Not enough bytes for uint16"),
        ("GetServerTime", "00 00 00 00 00", "Not enough bytes for uint32"),
        ("GetStatistics", "00 00 FF", "Unknown variant"),
    ],
)
def test_what_is_missing_is_named(catalogue: Catalogue, name: str, payload: str, text: str) -> None:
    with pytest.raises(PayloadError, match=f"^{text}$"):
        decode(response_of(catalogue, name)[1], bytes.fromhex(payload))


def test_descriptions(catalogue: Catalogue) -> None:
    forced = catalogue.named("ForcedGetExclusiveControlWithUser").errors
    assert forced is not None
    assert describe_bits(forced, 0x0006) == "Invalid User Name; Unknown (0x0002); "
    motor = catalogue.named("SetMotorPosition").errors
    assert motor is not None
    assert describe_bits(motor, 2) == "Closed Loop Control Active; Motor Position limited by Device; "
    assert (
        describe_enum(catalogue.named("GetServerStatus").coded["RestartStatus"], 3)
        == "Unknown value (0x0003)"
    )


def test_uuid_text() -> None:
    assert uuid_text(bytes(range(16))) == "00010203-0405-0607-0809-0A0B0C0D0E0F"


@settings(max_examples=400, deadline=None, suppress_health_check=list(HealthCheck))
@given(data=st.data())
def test_every_message_survives_a_round_trip(catalogue: Catalogue, data: st.DataObject) -> None:
    messages = {message.type: message for _, _, message in catalogue.layouts()}
    message = messages[data.draw(st.sampled_from(sorted(messages)), label="message")]
    record = data.draw(records(message.fields))
    payload = encode(message.fields, record)
    assert decode(message.fields, payload) == (record, 0)


def test_every_truncation_is_named(catalogue: Catalogue) -> None:
    plausible = Plausible(lambda: 1_700_000_000)
    for _, _, message in catalogue.layouts():
        payload = encode(message.fields, plausible.complete(message.fields))
        for length in range(len(payload)):
            with pytest.raises(PayloadError) as caught:
                decode(message.fields, payload[:length])
            assert str(caught.value) in TEXTS
