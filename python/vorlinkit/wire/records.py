"""How a payload is held: a dict from protocol key to value, in the order of the layout.

Numbers are ints, strings are str (UTF-8 with surrogateescape, so that no byte is lost), a uuid is its text of
36 characters, a blob is bytes, a list is a list of records. A variant has no key of its own on the wire; it
is held under the attribute name of its field.
"""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from typing import Union

Value = Union[int, str, bytes, "list[Record]", "Variant"]
Record = dict[str, Value]
Known = Mapping[str, Value]


@dataclass
class Variant:
    """The alternative that a record holds."""

    name: str
    fields: Record


def number(record: Known, key: str, otherwise: int = 0) -> int:
    """The number under ``key``, or ``otherwise`` when the layout has no such number."""
    value = record.get(key)
    return value if isinstance(value, int) else otherwise


def text(record: Known, key: str, otherwise: str = "") -> str:
    """The string under ``key``, or ``otherwise`` when the layout has no such string."""
    value = record.get(key)
    return value if isinstance(value, str) else otherwise
