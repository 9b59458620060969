"""Values for every layout of the catalogue, with what is awkward in them: quotes, bytes that are no UTF-8, limits."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from typing import Any

from vorlinkit.catalogue import (
    NUMBER_WIDTHS,
    BlobField,
    Command,
    Field,
    ListField,
    Message,
    MessageKind,
    ScalarField,
    VariantField,
)
from vorlinkit.client.layouts import catalogue, layouts
from vorlinkit.wire.records import Record, Variant

TEXTS = ('"quoted" \\ {}', "bytes \udc80\udcff", "ÄΩ漢", "")
UUID = "0123ABCD-0000-4F00-8000-00112233AABB"


def messages(*kinds: MessageKind) -> list[tuple[Command, MessageKind, Message]]:
    return [each for each in catalogue().layouts() if each[1] in kinds]


def wire_records(message: Message) -> Iterator[Record]:
    """Records of a message by protocol keys: counts fit, and every alternative occurs."""
    most = max((len(f.alternatives) for f in below(message.fields) if isinstance(f, VariantField)), default=1)
    return (filled(message.fields, choice, 0, []) for choice in range(most))


def below(fields: Sequence[Field]) -> Iterator[Field]:
    for field in fields:
        yield field
        if isinstance(field, ListField):
            yield from below(field.items)
        elif isinstance(field, VariantField):
            for one in field.alternatives:
                yield from below(one.fields)


def filled(fields: Sequence[Field], choice: int, item: int, outer: list[Record]) -> Record:
    """`choice`: the alternative of every variant; `item`: makes the values of neighbours differ."""
    record: Record = {}
    scopes = [*outer, record]
    for at, field in enumerate(fields):
        if isinstance(field, ScalarField):
            record[field.key] = scalar(field, at + choice + item)
        elif isinstance(field, BlobField):
            record[field.key] = bytes(range(253, 256)) * (choice + 1)
            record[field.count] = 3 * (choice + 1)
        elif isinstance(field, ListField):
            record[field.key] = [filled(field.items, choice, each, scopes) for each in range(2)]
            record[field.count] = 2
        else:
            one = field.alternatives[choice % len(field.alternatives)]
            inner = filled(one.fields, choice, item, scopes)
            holder = inner if field.inside else next(scope for scope in reversed(scopes) if field.on in scope)
            holder[field.on] = one.when[-1]
            record[field.attribute] = Variant(one.name, inner)
    return record


def scalar(field: ScalarField, at: int) -> int | str:
    if field.kind == "string":
        return TEXTS[at % len(TEXTS)]
    if field.kind == "uuid":
        return UUID
    most = (1 << 8 * NUMBER_WIDTHS[field.kind]) - 1
    return (most, 0, most - 1, 1)[at % 4]


def as_value(record: Record, name: str, form: str, space: Any) -> Any:
    """A record of a type as a caller may pass it: "mapping", "tuple" or "record" of the classes in `space`."""
    layout = layouts()[name]
    made = space.__getattribute__(name)() if form == "record" else None
    values: dict[str, Any] = {}
    for field in layout.given:
        values[field.attribute] = argument(field, record, form, space)
        if made is not None:
            setattr(made, field.attribute + "_bytes" * isinstance(field, BlobField), values[field.attribute])
    return made if made is not None else values if form == "mapping" else tuple(values.values())


def argument(field: Field, record: Record, form: str, space: Any) -> Any:
    """One value of a call."""
    if isinstance(field, ListField):
        items = record[field.key]
        assert isinstance(items, list)
        return [as_value(item, field.type, form, space) for item in items]
    if isinstance(field, VariantField):
        held = record[field.attribute]
        assert isinstance(held, Variant)
        one = next(one for one in field.alternatives if one.name == held.name)
        value = as_value(held.fields, one.type, form, space)
        return value if form == "record" else (one.name, value)
    return record[field.key]
