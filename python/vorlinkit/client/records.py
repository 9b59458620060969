"""Records as plain data: dicts, JSON, and rows of a table.

Keys are the names of the attributes, which are also those of parameters and of keywords: one word for one thing,
wherever a Python program meets it. They work with the records of the extension module and with those in pure Python.
"""

from __future__ import annotations

import base64
import binascii
import json
import sys
from collections.abc import Callable, Iterator, Mapping
from functools import cache
from typing import Any, Final, Literal, NamedTuple, TypeVar

from vorlinkit.catalogue import Alternative, BlobField, Field, ListField, ScalarField, VariantField
from vorlinkit.wire.render import COMMAND_ERROR, describe_bits, describe_enum

from .layouts import Layout, bytes_attribute, layout_of, layouts

T = TypeVar("T")

ALTERNATIVE: Final = "alternative"
"""The key under which the dict of a variant names its alternative."""
DESCRIPTION: Final = "_desc"

Blobs = Literal["base64", "omit"]


def to_dict(record: object, *, describe: bool = False) -> dict[str, Any]:
    """A record as a dict of its attributes: numbers, texts, bytes, lists of dicts.

    The dict of a variant begins with the name of its alternative under ``alternative``. With `describe`, every coded
    number is followed by what it means, in the machine's words: ``command_error``, ``command_error_desc``.
    """
    return _plain(record, layout_of(record), describe, bytes)


def from_dict(kind: type[T], values: Mapping[str, Any]) -> T:
    """The record of a class that `to_dict` made these values of.

    Counts and what selects an alternative may be left out, as they follow from the rest, and so may blobs, which are
    empty then. Raises ValueError for other keys that are missing and for unknown ones, TypeError for wrong values.
    """
    return _filled(kind(), layout_of(kind), values, bytes)


def to_json(
    record: object, *, blobs: Blobs = "base64", indent: int | None = None, describe: bool = False
) -> str:
    """A record as JSON, in the form of `to_dict`: an object in ASCII.

    `blobs`: as text in base64, or left out. Bytes of texts that are no UTF-8 become escapes ``\\udc80`` to ``\\udcff``,
    from which `from_json` makes them again.
    """
    if blobs not in ("base64", "omit"):
        raise ValueError(f'blobs is "base64" or "omit", not {blobs!r}')
    return json.dumps(
        _plain(record, layout_of(record), describe, _to_base64 if blobs == "base64" else None), indent=indent
    )


def from_json(kind: type[T], text: str | bytes) -> T:
    """The record of a class that `to_json` made this text of. Raises ValueError and TypeError as `from_dict` does."""
    values = json.loads(text)
    if not isinstance(values, dict):
        raise ValueError(f"a {kind.__name__} is a JSON object, not {text!r:.80}")
    return _filled(kind(), layout_of(kind), values, _from_base64)


def rows(record: object) -> list[dict[str, Any]]:
    """A record as rows of a table: one for each item of its innermost lists, which repeats what the item is part of.

    The fields of a variant stand in place, behind a column with the name of its alternative. Lists beside each other
    have rows of their own, empty (None) in the others' columns. A name that occurs again further in or in another list
    has its list's name before it. All rows have the same keys. Counts of lists and the bytes of blobs are left out. No
    items, no rows; but an item whose own list is empty keeps a row.
    """
    columns = _columns(layout_of(record).type)
    found = list(_rows(record, columns))
    keys = dict.fromkeys(key for row in found for key in row)
    return [{key: row.get(key) for key in keys} for row in found]


# -- dicts --------------------------------------------------------------------------------------------


def _plain(
    record: Any, layout: Layout, describe: bool, blob: Callable[[bytes], Any] | None
) -> dict[str, Any]:
    found: dict[str, Any] = {}
    for field in layout.fields:
        name = field.attribute
        if isinstance(field, BlobField):
            if blob is not None:
                found[name] = blob(getattr(record, bytes_attribute(layout, field)))
        elif isinstance(field, ListField):
            item = layouts()[field.type]
            found[name] = [_plain(each, item, describe, blob) for each in getattr(record, name)]
        elif isinstance(field, VariantField):
            held = getattr(record, name)
            one = _held_by(field, held)
            found[name] = {ALTERNATIVE: one.name, **_plain(held, layouts()[one.type], describe, blob)}
        else:
            found[name] = value = getattr(record, name)
            if describe and (text := _description(layout, field.key, value)) is not None:
                found[name + DESCRIPTION] = text
    return found


def _held_by(field: VariantField, record: object) -> Alternative:
    name = layout_of(record).type
    return next(one for one in field.alternatives if one.type == name)


def _description(layout: Layout, key: str, value: int) -> str | None:
    command = layout.command
    if key == COMMAND_ERROR and command.errors is not None:
        return describe_bits(command.errors, value)
    rows = command.coded.get(key)
    return describe_enum(rows, value) if rows is not None else None


def _is_coded(layout: Layout, key: str) -> bool:
    return _description(layout, key, 0) is not None


def _filled(record: T, layout: Layout, values: Mapping[str, Any], blob: Callable[[Any], Any]) -> T:
    """The record with these values in it; `blob` makes bytes of what stands for a blob."""
    known = {field.attribute for field in layout.fields}
    for key in values:
        if key not in known and key not in _ignored(layout):
            raise ValueError(
                f"{layout.type} has no {key!r}; it has {', '.join(f.attribute for f in layout.fields)}"
            )
    for field in layout.fields:
        name = field.attribute
        if isinstance(field, BlobField):
            setattr(record, bytes_attribute(layout, field), blob(values.get(name, b"")))
        elif name in values:
            setattr(record, name, _value(record, layout, field, values, blob))
        elif not layout.derives(field):
            raise ValueError(f"{layout.type}: {name} is missing")
    for field in layout.fields:
        if field.attribute not in values and layout.derives(field):
            setattr(record, field.attribute, _derived(record, layout, field))
    return record


def _ignored(layout: Layout) -> set[str]:
    coded = {
        field.attribute + DESCRIPTION
        for field in layout.fields
        if isinstance(field, ScalarField) and _is_coded(layout, field.key)
    }
    return {ALTERNATIVE, *coded} if layout.alternative else coded


def _value(
    record: object, layout: Layout, field: Field, values: Mapping[str, Any], blob: Callable[[Any], Any]
) -> Any:
    """A value as the attribute takes it."""
    value = values[field.attribute]
    if isinstance(field, ListField):
        item = _beside(record, field.type)
        return [
            _filled(item(), layouts()[field.type], each, blob) if isinstance(each, Mapping) else each
            for each in value
        ]
    if isinstance(field, VariantField) and isinstance(value, Mapping):
        one = _chosen(layout, field, value, values)
        return _filled(_beside(record, one.type)(), layouts()[one.type], value, blob)
    return value


def _beside(record: object, name: str) -> type[Any]:
    """Another record class of the same kind."""
    layout = layout_of(record).type
    home = next(each.__module__ for each in type(record).__mro__ if each.__name__ == layout)
    found: type[Any] = getattr(sys.modules[home], name)
    return found


def _chosen(
    layout: Layout, field: VariantField, value: Mapping[str, Any], around: Mapping[str, Any]
) -> Alternative:
    """The alternative that a dict names, or that the number in it or around it selects."""
    told = value.get(ALTERNATIVE)
    for one in field.alternatives:
        if told == one.name:
            return one
    if told is None:
        first = field.alternatives[0].fields[0].attribute if field.inside else ""
        outer = next((each.attribute for each in layout.fields if getattr(each, "key", "") == field.on), "")
        number = value.get(first) if field.inside else around.get(outer)
        for one in field.alternatives:
            if number in one.when:
                return one
    names = ", ".join(one.name for one in field.alternatives)
    raise ValueError(f"{layout.type}: {field.attribute} needs {ALTERNATIVE!r}, one of {names}")


def _derived(record: Any, layout: Layout, field: Field) -> int:
    """A count, or the number of an alternative, of a record that has the rest."""
    assert isinstance(field, ScalarField)
    if field.key in layout.counts:
        counted = layout.counts[field.key]
        if isinstance(counted, BlobField):
            return len(getattr(record, bytes_attribute(layout, counted)))
        return len(getattr(record, counted.attribute))
    if field.key in layout.selectors:
        variant = layout.selectors[field.key]
        return _held_by(variant, getattr(record, variant.attribute)).when[0]
    return layout.when[0]


def _to_base64(blob: bytes) -> str:
    return base64.b64encode(blob).decode("ascii")


def _from_base64(text: str | bytes) -> bytes:
    try:
        return base64.b64decode(text, validate=True)
    except binascii.Error as error:
        raise ValueError(f"{text!r:.80} is no base64: {error}") from None


# -- tables -------------------------------------------------------------------------------------------


class _Columns(NamedTuple):
    """What the rows of a record type are made of. `own`: attribute and column of its scalars; `lists`: attribute,
    columns of the items, and all column names below, which a row without items leaves empty; `variants`: attribute,
    column, and the columns of each alternative by its type's name."""

    own: list[tuple[str, str]]
    lists: list[tuple[str, _Columns, list[str]]]
    variants: list[tuple[VariantField, str, dict[str, _Columns]]]


@cache
def _columns(name: str) -> _Columns:
    return _below(layouts()[name], {}, "")


def _below(layout: Layout, taken: dict[str, None], prefix: str) -> _Columns:
    """The columns of a record type inside others whose columns are `taken`, in their order; adds its own to them."""

    def column(attribute: str) -> str:
        name = attribute if attribute not in taken else f"{prefix}{attribute}"
        while name in taken:
            name += "_"
        taken[name] = None
        return name

    columns = _Columns([], [], [])
    for field in layout.fields:
        if isinstance(field, ScalarField) and not isinstance(layout.counts.get(field.key), ListField):
            columns.own.append((field.attribute, column(field.attribute)))
    for field in layout.fields:
        if isinstance(field, ListField):
            before = len(taken)
            inner = _below(layouts()[field.type], taken, field.attribute.removeprefix("list_of_") + "_")
            columns.lists.append((field.attribute, inner, list(taken)[before:]))
        elif isinstance(field, VariantField):
            shown = column(field.attribute)
            alternatives = {
                one.type: _below(layouts()[one.type], dict(taken), prefix) for one in field.alternatives
            }
            columns.variants.append((field, shown, alternatives))
    return columns


def _rows(record: Any, columns: _Columns, inside: bool = False) -> Iterator[dict[str, Any]]:
    own = {column: getattr(record, attribute) for attribute, column in columns.own}
    branches = [
        [row for item in getattr(record, attribute) for row in _rows(item, inner, True)]
        for attribute, inner, _ in columns.lists
    ]
    for field, column, alternatives in columns.variants:
        held = getattr(record, field.attribute)
        one = _held_by(field, held)
        own[column] = one.name
        branches.append(list(_rows(held, alternatives[one.type], inside)))
    empty = {column: None for _, _, below in columns.lists for column in below}
    if any(branches):
        yield from ({**own, **empty, **row} for branch in branches for row in branch)
    elif inside or not branches:
        yield {**own, **empty}
