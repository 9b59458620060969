"""``vorlinkit decode TYPE HEX``: a payload read by its layout."""

from __future__ import annotations

import sys
from argparse import Namespace
from collections.abc import Iterator, Sequence
from typing import Any

from vorlinkit.catalogue import BlobField, Command, Field, ListField, Message, ScalarField, load
from vorlinkit.client.errors import DecodeError
from vorlinkit.client.records import ALTERNATIVE, DESCRIPTION
from vorlinkit.wire.coder import PayloadError, decode
from vorlinkit.wire.records import Record, Variant
from vorlinkit.wire.render import COMMAND_ERROR, describe_bits, describe_enum

from .exits import OK
from .lookup import type_called
from .output import Output
from .shown import show
from .values import hex_bytes


def run(arguments: Namespace, output: Output) -> int:
    command, kind = type_called(load(), arguments.type)
    for payload in _payloads(arguments.hex):
        _decode(command, command.messages[kind], payload, output)
    return OK


def _payloads(words: Sequence[str]) -> Iterator[bytes]:
    if words and words != ["-"]:
        yield hex_bytes(" ".join(words), "HEX")
        return
    for number, line in enumerate(sys.stdin, 1):
        if line.strip():
            yield hex_bytes(line, f"line {number}")


def plain(command: Command, fields: Sequence[Field], record: Record) -> dict[str, Any]:
    """What `vorlinkit.to_dict(..., describe=True)` makes of the same payload; also of requests, which have no decoder
    elsewhere."""
    found: dict[str, Any] = {}
    for field in fields:
        name = field.attribute
        if isinstance(field, ListField):
            items = record[field.key]
            assert isinstance(items, list)
            found[name] = [plain(command, field.items, item) for item in items]
        elif isinstance(field, (ScalarField, BlobField)):
            found[name] = value = record[field.key]
            text = _description(command, field.key, value)
            if text is not None:
                found[name + DESCRIPTION] = text
        else:
            held = record[name]
            assert isinstance(held, Variant)
            one = next(each for each in field.alternatives if each.name == held.name)
            found[name] = {ALTERNATIVE: one.name, **plain(command, one.fields, held.fields)}
    return found


def _decode(command: Command, message: Message, payload: bytes, output: Output) -> None:
    try:
        record, left = decode(message.fields, payload)
    except PayloadError as error:
        raise DecodeError(
            f"{message.type} ({message.standing}) cannot be read at {error.path or 'its start'}, "
            f"byte {error.offset} of {len(payload)}: {error}",
            command=command.name,
            field=error.path,
            offset=error.offset,
            payload=payload,
            standing=message.standing,
        ) from None
    values, rest = plain(command, message.fields, record), payload[len(payload) - left :]
    if output.as_json:
        head = {"type": message.type, "standing": message.standing}
        output.record({**head, "values": values, "left_over": rest.hex()})
        return
    output.line(
        f"{output.paint(message.type, 'head')}, layout {output.paint(message.standing, message.standing)}"
    )
    show(output, values, "  ")
    if rest:
        output.line(output.paint(f"left over: {rest.hex(' ')}", "failed"))


def _description(command: Command, key: str, value: object) -> str | None:
    if not isinstance(value, int):
        return None
    if key == COMMAND_ERROR and command.errors is not None:
        return describe_bits(command.errors, value)
    rows = command.coded.get(key)
    return None if rows is None else describe_enum(rows, value)
