"""The layouts of record types, looked up by the names of their classes. Loads the catalogue when first asked."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from typing import Any

from vorlinkit.catalogue import (
    MESSAGE_KINDS,
    BlobField,
    Catalogue,
    Command,
    Field,
    ListField,
    MessageKind,
    ScalarField,
    VariantField,
    load,
)
from vorlinkit.wire.coder import PayloadError, decode

from .once import once


@dataclass(frozen=True)
class Layout:
    """One record type: its fields in wire order, and which of them follow from others.

    `counts`: key of a count or length -> what it counts. `selectors`: key of a number -> the variant that it selects
    an alternative of. `alternative`: the name of one; then `own` is the key of the number that selects it, "" if that
    is not part of it, and `when` are the values that do.
    """

    type: str
    command: Command
    fields: tuple[Field, ...]
    counts: Mapping[str, ListField | BlobField]
    selectors: Mapping[str, VariantField]
    alternative: str = ""
    own: str = ""
    when: tuple[int, ...] = ()

    @property
    def given(self) -> tuple[Field, ...]:
        """The fields that nothing else determines."""
        return tuple(field for field in self.fields if not self.derives(field))

    def derives(self, field: Field) -> bool:
        if not isinstance(field, ScalarField):
            return False
        return field.key in self.counts or field.key in self.selectors or (field.key == self.own != "")


def bytes_attribute(layout: Layout, field: BlobField) -> str:
    """The attribute that holds a blob's bytes at once."""
    taken = {each.attribute for each in layout.fields}
    name = field.attribute + "_bytes"
    while name in taken:
        name += "_"
    return name


@once
def catalogue() -> Catalogue:
    return load()


def layout_of(record: Any) -> Layout:
    """The layout of a record or of its class. Raises TypeError if it is none."""
    kind = record if isinstance(record, type) else type(record)
    known = layouts()
    for each in kind.__mro__:
        found = known.get(each.__name__)
        if found is not None:
            return found
    raise TypeError(f"{kind.__name__} is no record of a command")


@once
def layouts() -> Mapping[str, Layout]:
    """The layouts of all record types by name."""
    found = {}
    for command, _, message in catalogue().layouts():
        for layout in _tree(command, message.type, message.fields):
            found[layout.type] = layout
    return found


def locate(command: str, kind: str, payload: bytes) -> tuple[str, int, str]:
    """Where in a payload of a command decoding fails: path of the field, its first byte; and the layout's standing."""
    (message,) = (catalogue().named(command).messages[one] for one in MESSAGE_KINDS if one == kind)
    try:
        decode(message.fields, payload)
    except PayloadError as error:
        return error.path, error.offset, message.standing
    return "", 0, message.standing


def message_kind(layout: Layout) -> MessageKind | None:
    """Which message of its command a layout is; None for a part of one."""
    for kind, message in layout.command.messages.items():
        if message.type == layout.type:
            return kind
    return None


def _tree(
    command: Command,
    name: str,
    fields: tuple[Field, ...],
    alternative: str = "",
    own: str = "",
    when: tuple[int, ...] = (),
) -> Iterator[Layout]:
    """A record's layout behind those of the records in it."""
    counts: dict[str, ListField | BlobField] = {}
    selectors: dict[str, VariantField] = {}
    keys = {field.key for field in fields if isinstance(field, ScalarField)}
    for field in fields:
        if isinstance(field, ListField):
            counts[field.count] = field
            yield from _tree(command, field.type, field.items)
        elif isinstance(field, BlobField):
            counts[field.count] = field
            item = (ScalarField(field.item, field.item_attribute, "u8", ""),)
            yield from _tree(command, field.type, item)
        elif isinstance(field, VariantField):
            if not field.inside and field.on in keys:
                selectors[field.on] = field
            for one in field.alternatives:
                own_key = field.on if field.inside else ""
                yield from _tree(command, one.type, one.fields, one.name, own_key, one.when)
    yield Layout(name, command, fields, counts, selectors, alternative, own, when)
