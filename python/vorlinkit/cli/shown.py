"""Payloads as text: what `vorlinkit.to_dict(..., describe=True)` makes of a record, as lines and tables."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from typing import Any, Final

from .output import Output, printable

DESCRIPTION: Final = "_desc"
BYTES_SHOWN: Final = 16
NESTED: Final = (list, dict)


def show(output: Output, values: Mapping[str, Any], indent: str = "") -> None:
    """A payload as lines: its own values, then its lists as tables."""
    single = own_values(values)
    width = max(map(len, single), default=0)
    for name, text in single.items():
        output.line(f"{indent}{output.paint(name.ljust(width), 'note')}  {text}".rstrip())
    for name, value in values.items():
        if isinstance(value, NESTED):
            output.line(f"{indent}{output.paint(name, 'note')}")
            _show_nested(output, [value] if isinstance(value, dict) else value, indent + "  ")


def own_values(values: Mapping[str, Any]) -> dict[str, str]:
    """What is no list and no record as texts; those of codes are followed by what they mean."""
    found = {}
    for name, value in values.items():
        described = name.endswith(DESCRIPTION) and name.removesuffix(DESCRIPTION) in values
        if not (described or isinstance(value, NESTED)):
            meaning = values.get(name + DESCRIPTION)
            words = "" if meaning is None else f" ({printable(meaning).strip().rstrip(';')})"
            found[name] = cell(value) + words
    return found


def cell(value: object) -> str:
    """One value as text; of bytes the first few."""
    if isinstance(value, bytes):
        dots = " …" if len(value) > BYTES_SHOWN else ""
        return f"{len(value)} bytes: {value[:BYTES_SHOWN].hex(' ')}{dots}" if value else "0 bytes"
    return printable(value)


def _show_nested(output: Output, items: Sequence[Mapping[str, Any]], indent: str) -> None:
    if not items:
        output.line(indent + "(none)")
    elif (
        any(isinstance(value, NESTED) for item in items for value in item.values())
        or len({tuple(item) for item in items}) > 1
    ):
        for at, item in enumerate(items):
            if at:
                output.line()
            show(output, item, indent)
    else:
        rows = [
            [value if isinstance(value, int) else cell(value) for value in item.values()] for item in items
        ]
        output.table(list(items[0]), rows, indent)
