"""Payloads as they are printed: as plain data in the form of `vorlinkit.to_dict`, and as lines of text."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from typing import Any, Final

from vorlinkit.catalogue import BlobField, Command, Field, ListField, ScalarField
from vorlinkit.wire.records import Record, Variant
from vorlinkit.wire.render import COMMAND_ERROR, describe_bits, describe_enum

from .output import Output, printable

ALTERNATIVE: Final = "alternative"
DESCRIPTION: Final = "_desc"
BYTES_SHOWN: Final = 16
NESTED: Final = (list, dict)


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


def show(output: Output, values: Mapping[str, Any], indent: str = "") -> None:
    """A payload as lines: its own values, then its lists as tables."""
    single = {name: value for name, value in values.items() if not isinstance(value, NESTED)}
    width = max(map(len, single), default=0)
    for name, value in single.items():
        if name.removesuffix(DESCRIPTION) not in single or name == name.removesuffix(DESCRIPTION):
            text = described(values, name, value)
            output.line(f"{indent}{output.paint(name.ljust(width), 'note')}  {text}".rstrip())
    for name, value in values.items():
        if isinstance(value, NESTED):
            output.line(f"{indent}{output.paint(name, 'note')}")
            _show_nested(output, [value] if isinstance(value, dict) else value, indent + "  ")


def described(values: Mapping[str, Any], name: str, value: object) -> str:
    """One value as text, followed by what it means if it is a code."""
    text = cell(value)
    meaning = values.get(name + DESCRIPTION)
    return f"{text} ({printable(meaning).strip().rstrip(';')})" if meaning is not None else text


def cell(value: object) -> str:
    """One value as text; of bytes the first few."""
    if isinstance(value, bytes):
        dots = " …" if len(value) > BYTES_SHOWN else ""
        return f"{len(value)} bytes: {value[:BYTES_SHOWN].hex(' ')}{dots}" if value else "0 bytes"
    return printable(value)


def _show_nested(output: Output, items: Sequence[Mapping[str, Any]], indent: str) -> None:
    if not items:
        output.line(indent + "(none)")
    elif any(isinstance(value, NESTED) for item in items for value in item.values()) or len(
        {tuple(item) for item in items}
    ) > 1:
        for at, item in enumerate(items):
            if at:
                output.line()
            show(output, item, indent)
    else:
        rows = [[value if isinstance(value, int) else cell(value) for value in item.values()] for item in items]
        output.table(list(items[0]), rows, indent)


def _description(command: Command, key: str, value: object) -> str | None:
    if not isinstance(value, int):
        return None
    if key == COMMAND_ERROR and command.errors is not None:
        return describe_bits(command.errors, value)
    rows = command.coded.get(key)
    return None if rows is None else describe_enum(rows, value)
