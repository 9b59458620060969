"""A record as one line of JSON, in the form of the client library: for events and for comparing."""

from __future__ import annotations

from collections.abc import Sequence

from vorlinkit.catalogue import BlobField, CodedValue, Command, Field, ListField, ScalarField

from .records import Record, Value, Variant

COMMAND_ERROR = "CommandError"


def to_json(command: Command, fields: Sequence[Field], record: Record) -> str:
    """One line; strings stand as they are, without escaping, as the protocol's renderers leave them."""
    return "{" + ", ".join(_entries(command, fields, record)) + "}"


def describe_bits(rows: Sequence[CodedValue], value: int) -> str:
    """The texts of a command error: every row that shares a bit, then the bits without a row."""
    if value == 0:
        return "Success"
    texts = [row.text + "; " for row in rows if row.code & value]
    unknown = value
    for row in rows:
        unknown &= ~row.code
    if unknown:
        texts.append(f"Unknown (0x{unknown:04X}); ")
    return "".join(texts)


def describe_enum(rows: Sequence[CodedValue], value: int) -> str:
    """The text of one code."""
    return next((row.text for row in rows if row.code == value), f"Unknown value (0x{value:04X})")


def _entries(command: Command, fields: Sequence[Field], record: Record) -> list[str]:
    entries: list[str] = []
    for field in fields:
        if isinstance(field, ScalarField):
            value = record[field.key]
            entries.append(f'"{field.key}": {_scalar(value)}')
            description = _description(command, field.key, value)
            if description is not None:
                entries.append(f'"{field.key}_Desc": "{description}"')
        elif isinstance(field, BlobField):
            blob = record[field.key]
            assert isinstance(blob, bytes)
            entries.append(
                f'"{field.key}": [' + ", ".join(f'{{"{field.item}": {byte}}}' for byte in blob) + "]"
            )
        elif isinstance(field, ListField):
            items = record[field.key]
            assert isinstance(items, list)
            entries.append(
                f'"{field.key}": [' + ", ".join(to_json(command, field.items, one) for one in items) + "]"
            )
        else:
            variant = record[field.attribute]
            assert isinstance(variant, Variant)
            chosen = next(one for one in field.alternatives if one.name == variant.name)
            entries += _entries(command, chosen.fields, variant.fields)
    return entries


def _scalar(value: Value) -> str:
    return str(value) if isinstance(value, int) else f'"{value!s}"'


def _description(command: Command, key: str, value: Value) -> str | None:
    if not isinstance(value, int):
        return None
    if key == COMMAND_ERROR and command.errors is not None:
        return describe_bits(command.errors, value)
    rows = command.coded.get(key)
    return None if rows is None else describe_enum(rows, value)
