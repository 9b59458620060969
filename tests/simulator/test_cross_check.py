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
from vorlinkit.wire.records import Record
from vorlinkit.wire.render import describe_bits, describe_enum, to_json

vorlin: Any = pytest.importorskip("vorlinkit_python", reason="the extension module was not built")

SEED = 50713
PLAUSIBLE = Plausible(lambda: 1_700_000_000)


def library_json(command: Command, kind: MessageKind, payload: bytes) -> str:
    """What the library makes of a payload; RuntimeError when it cannot be decoded."""
    message = getattr(vorlin, f"decode_{command.snake}_{kind}")(payload)
    text: str = getattr(vorlin, f"{command.snake}_{kind}_to_json")(message)
    return text


def filled(instance: Any, fields: Sequence[Field], record: Record) -> Any:
    """A message object of the library with the values of a record."""
    for field in fields:
        if isinstance(field, BlobField):
            setattr(instance, f"{field.attribute}_bytes", record[field.key])
        elif isinstance(field, ScalarField):
            setattr(instance, field.attribute, record[field.key])
        elif isinstance(field, ListField):
            kind = getattr(vorlin, field.type)
            entries: Any = record[field.key]
            setattr(instance, field.attribute, [filled(kind(), field.items, entry) for entry in entries])
        else:
            variant: Any = record[field.attribute]
            chosen = next(one for one in field.alternatives if one.name == variant.name)
            alternative = filled(getattr(vorlin, chosen.type)(), chosen.fields, variant.fields)
            setattr(instance, field.attribute, alternative)
    return instance


def check(command: Command, kind: MessageKind, fields: Sequence[Field], record: Record) -> None:
    payload, text = encode(fields, record), to_json(command, fields, record)
    assert decode(fields, payload) == (record, 0)
    if kind == "request":
        request = filled(getattr(vorlin, f"{command.name}Request")(), fields, record)
        assert getattr(vorlin, f"encode_{command.snake}_request")(request) == payload
        assert getattr(vorlin, f"{command.snake}_request_to_json")(request) == text
    else:
        assert library_json(command, kind, payload) == text


def test_every_message_means_the_same_to_both(catalogue: Catalogue) -> None:
    layouts = list(catalogue.layouts())
    for command, kind, message in layouts:
        check(command, kind, message.fields, PLAUSIBLE.complete(message.fields))
    assert len(layouts) == sum(catalogue.standings().values()) >= 454


@settings(max_examples=1000, deadline=None, suppress_health_check=list(HealthCheck))
@given(data=st.data())
def test_any_values_mean_the_same_to_both(catalogue: Catalogue, data: st.DataObject) -> None:
    layouts = {message.type: (command, kind, message) for command, kind, message in catalogue.layouts()}
    command, kind, message = layouts[data.draw(st.sampled_from(sorted(layouts)), label="message")]
    check(command, kind, message.fields, data.draw(records(message.fields)))


def agree(command: Command, kind: MessageKind, fields: Sequence[Field], payload: bytes) -> None:
    """Both make the same of a payload: its JSON, or why it cannot be decoded."""
    try:
        ours = to_json(command, fields, decode(fields, payload)[0])
    except PayloadError as error:
        ours = f"Decode failed: {error}"
    try:
        theirs = library_json(command, kind, payload)
    except RuntimeError as error:
        theirs = str(error)
    assert ours == theirs, f"{command.name} {kind}: {payload.hex()}"


def test_both_make_the_same_of_cut_and_spoilt_payloads(catalogue: Catalogue) -> None:
    chance = random.Random(SEED)
    for command, kind, message in catalogue.layouts():
        payload = encode(message.fields, PLAUSIBLE.complete(message.fields))
        if kind == "request":  # which the library does not decode
            for length in range(len(payload)):
                with pytest.raises(
                    PayloadError, match="^(Not enough bytes for u|String not null-terminated$)"
                ):
                    decode(message.fields, payload[:length])
            continue
        tried = [payload[:length] for length in range(len(payload) + 1)]
        for _ in range(20):
            spoilt = bytearray(payload)
            for _ in range(chance.randint(1, 4)):
                spoilt[chance.randrange(len(spoilt))] = chance.choice((0, 1, 255, chance.randrange(256)))
            tried += [bytes(spoilt), chance.randbytes(chance.randrange(200))]
        for each in tried:
            agree(command, kind, message.fields, each)


def test_descriptions_agree(catalogue: Catalogue) -> None:
    chance = random.Random(SEED)
    values = [*range(30), 0x100, 0xFFFF, *(chance.randrange(1 << 16) for _ in range(20))]
    attributes = {"StatisticsID": "statistics_id", "Overview": "overview", "RestartStatus": "restart_status"}
    for command in catalogue.commands:
        tables = [(attributes[key], describe_enum, rows) for key, rows in command.coded.items()]
        if command.errors is not None:
            tables.append(("command_error", describe_bits, command.errors))
        for attribute, ours, rows in tables:
            name = f"{command.snake}_{attribute}"
            theirs = getattr(vorlin, f"{name}_string")
            assert [theirs(value) for value in values] == [ours(rows, value) for value in values], name
            listed = [(row.code, row.description) for row in getattr(vorlin, f"{name}_codes")().values]
            assert listed == [(row.code, row.text) for row in rows], name
