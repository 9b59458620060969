"""The coder on its own: known bytes of a settled layout, and what it says of every message that is cut off."""

from __future__ import annotations

import pytest
from vorlinkit.catalogue import Catalogue
from vorlinkit.simulator.state.plausible import Plausible
from vorlinkit.wire.coder import PayloadError, decode, encode
from vorlinkit.wire.render import to_json

TEXTS = {f"Not enough bytes for {kind}" for kind in ("uint8", "uint16", "uint32", "uuid")}
TEXTS |= {"String not null-terminated", "Unknown variant"}


def test_settled_layout_to_the_byte(catalogue: Catalogue) -> None:
    command = catalogue.named("GetAttachedMotors")
    assert command.response is not None
    payload = bytes.fromhex("00 00 41 44 31 00 02 01 03 02 05")
    record, left_over = decode(command.response.fields, payload)
    assert left_over == 0
    assert to_json(command, command.response.fields, record) == (
        '{"CommandError": 0, "CommandError_Desc": "Success", "AutomatedDeviceID": "AD1", '
        '"NumberOfMotors": 2, "listOfMotors": [{"AttachedMotorNumber": 1, "MotorType": 3}, '
        '{"AttachedMotorNumber": 2, "MotorType": 5}]}'
    )
    assert encode(command.response.fields, record) == payload


def test_every_truncation_is_named(catalogue: Catalogue) -> None:
    plausible = Plausible(lambda: 1_700_000_000)
    for _, _, message in catalogue.layouts():
        payload = encode(message.fields, plausible.complete(message.fields))
        assert decode(message.fields, payload)[1] == 0
        for length in range(len(payload)):
            with pytest.raises(PayloadError) as caught:
                decode(message.fields, payload[:length])
            assert str(caught.value) in TEXTS
