"""The simulator's coder and the library's, written apart from each other, agree on every message."""

from __future__ import annotations

import random
from collections.abc import Sequence
from typing import Any

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from strategies import records
from vorlinkit.catalogue import BlobField, Catalogue, Command, Field, ListField, MessageKind, ScalarField
from vorlinkit.simulator.state.plausible import Plausible
from vorlinkit.wire.coder import PayloadError, decode, encode
from vorlinkit.wire.records import Record, Variant
from vorlinkit.wire.render import to_json

vorlin: Any = pytest.importorskip("vorlinkit_python", reason="the extension module was not built")

SEED = 50713


def library_json(command: Command, kind: MessageKind, payload: bytes) -> str:
    """What the library makes of a payload; RuntimeError when it cannot be decoded."""
    message = getattr(vorlin, f"decode_{command.snake}_{kind}")(payload)
    text: str = getattr(vorlin, f"{command.snake}_{kind}_to_json")(message)
    return text


def filled(instance: Any, fields: Sequence[Field], record: Record) -> Any:
    """A message object of the library with the values of a record."""
    for field in fields:
        if isinstance(field, ScalarField):
            setattr(instance, field.attribute, record[field.key])
        elif isinstance(field, BlobField):
            items = [getattr(vorlin, field.type)() for _ in record[field.key]]  # type: ignore[union-attr]
            for item, byte in zip(items, record[field.key], strict=True):  # type: ignore[arg-type]
                setattr(item, field.item_attribute, byte)
            setattr(instance, field.attribute, items)
        elif isinstance(field, ListField):
            kind = getattr(vorlin, field.type)
            entries: Any = record[field.key]
            setattr(instance, field.attribute, [filled(kind(), field.items, entry) for entry in entries])
        else:
            variant = record[field.attribute]
            assert isinstance(variant, Variant)
            chosen = next(one for one in field.alternatives if one.name == variant.name)
            alternative = filled(getattr(vorlin, chosen.type)(), chosen.fields, variant.fields)
            setattr(instance, field.attribute, alternative)
    return instance


def check_incoming(command: Command, kind: MessageKind, fields: Sequence[Field], record: Record) -> None:
    payload = encode(fields, record)
    assert library_json(command, kind, payload) == to_json(command, fields, record)


def check_request(command: Command, fields: Sequence[Field], record: Record) -> None:
    request = filled(getattr(vorlin, f"{command.name}Request")(), fields, record)
    payload = getattr(vorlin, f"encode_{command.snake}_request")(request)
    assert payload == encode(fields, record)
    assert decode(fields, payload) == (record, 0)
    assert getattr(vorlin, f"{command.snake}_request_to_json")(request) == to_json(command, fields, record)


def check(command: Command, kind: MessageKind, fields: Sequence[Field], record: Record) -> None:
    if kind == "request":
        check_request(command, fields, record)
    else:
        check_incoming(command, kind, fields, record)


def test_every_message_means_the_same_to_both(catalogue: Catalogue) -> None:
    plausible = Plausible(lambda: 1_700_000_000)
    checked = 0
    for command, kind, message in catalogue.layouts():
        check(command, kind, message.fields, plausible.complete(message.fields))
        checked += 1
    assert checked == sum(catalogue.standings().values()) >= 454


@settings(max_examples=1000, deadline=None, suppress_health_check=list(HealthCheck))
@given(data=st.data())
def test_any_values_mean_the_same_to_both(catalogue: Catalogue, data: st.DataObject) -> None:
    layouts = {message.type: (command, kind, message) for command, kind, message in catalogue.layouts()}
    command, kind, message = layouts[data.draw(st.sampled_from(sorted(layouts)), label="message")]
    check(command, kind, message.fields, data.draw(records(message.fields)))


def verdicts(command: Command, kind: MessageKind, fields: Sequence[Field], payload: bytes) -> tuple[str, str]:
    """What each of the two makes of a payload: its JSON, or why it cannot be decoded."""
    try:
        ours = to_json(command, fields, decode(fields, payload)[0])
    except PayloadError as error:
        ours = f"Decode failed: {error}"
    try:
        theirs = library_json(command, kind, payload)
    except RuntimeError as error:
        theirs = str(error)
    return ours, theirs


def test_both_name_the_same_shortage_at_every_cut(catalogue: Catalogue) -> None:
    plausible = Plausible(lambda: 1_700_000_000)
    for command, kind, message in catalogue.layouts():
        if kind != "request":
            payload = encode(message.fields, plausible.complete(message.fields))
            for length in range(len(payload) + 1):
                ours, theirs = verdicts(command, kind, message.fields, payload[:length])
                assert ours == theirs, f"{message.type}, {length} of {len(payload)} bytes"


def test_both_make_the_same_of_spoilt_payloads(catalogue: Catalogue) -> None:
    plausible = Plausible(lambda: 1_700_000_000)
    chance = random.Random(SEED)
    for command, kind, message in catalogue.layouts():
        if kind == "request":
            continue
        payload = encode(message.fields, plausible.complete(message.fields))
        for _ in range(20):
            spoilt = bytearray(payload)
            for _ in range(chance.randint(1, 4)):
                spoilt[chance.randrange(len(spoilt))] = chance.choice((0, 1, 255, chance.randrange(256)))
            ours, theirs = verdicts(command, kind, message.fields, bytes(spoilt))
            assert ours == theirs, f"{message.type}: {spoilt.hex()}"
            noise = chance.randbytes(chance.randrange(200))
            ours, theirs = verdicts(command, kind, message.fields, noise)
            assert ours == theirs, f"{message.type}: {noise.hex()}"


def test_error_descriptions_agree(catalogue: Catalogue) -> None:
    from vorlinkit.wire.render import describe_bits, describe_enum

    chance = random.Random(SEED)
    values = [0, 1, 2, 3, 4, 6, 8, 0x12, 0x100, 0xFFFF, *(chance.randrange(1 << 16) for _ in range(20))]
    for command in catalogue.commands:
        for value in values:
            if command.errors is not None:
                theirs = getattr(vorlin, f"{command.snake}_command_error_string")(value)
                assert theirs == describe_bits(command.errors, value), command.name
        for key, rows in command.coded.items():
            attribute = next(
                one
                for one in dir(vorlin)
                if one.startswith(command.snake) and one.endswith("_codes") and "command_error" not in one
            )
            assert [(row.code, row.description) for row in getattr(vorlin, attribute)().values] == [
                (row.code, row.text) for row in rows
            ]
            describe = getattr(vorlin, attribute.removesuffix("_codes") + "_string")
            assert [describe(value) for value in range(30)] == [
                describe_enum(rows, value) for value in range(30)
            ], key
