"""The catalogue as frozen values: what the notation says and what validation has agreed to.

A layout is a tree: a `Record` has fields in wire order; lists, blobs and variants hold further records. A field's
`layout` is the named layout that it was taken from; it says where the field is written and nothing else.
"""

from __future__ import annotations

import re
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field, replace

from . import names

INTEGER_BITS = {"u8": 8, "u16": 16, "u32": 32, "u64": 64}
SCALAR_KINDS = (*INTEGER_BITS, "string", "uuid")
ROLES = ("request", "response", "notification")
EFFECTS = ("read", "change")
COMMAND_ERROR = "CommandError"
LAYOUTS = "layouts"
KEY = re.compile(r"[A-Z][A-Za-z0-9]*")


@dataclass(frozen=True)
class Scalar:
    """A number, a string or a uuid."""

    key: str
    kind: str
    note: str = ""
    layout: str = ""

    @property
    def attribute(self) -> str:
        return names.attribute(self.key)

    @property
    def is_integer(self) -> bool:
        return self.kind in INTEGER_BITS


@dataclass(frozen=True)
class List:
    """A counted list; its count is an ordinary field on an earlier line of the same record."""

    base: str
    count: str
    item: Record
    note: str = ""
    layout: str = ""

    @property
    def key(self) -> str:
        return names.list_key(self.base)

    @property
    def attribute(self) -> str:
        return names.attribute(self.key)


@dataclass(frozen=True)
class Blob:
    """A counted run of bytes; each byte is an item record with one u8."""

    key: str
    count: str
    item: Record
    note: str = ""
    layout: str = ""

    @property
    def attribute(self) -> str:
        return names.attribute(self.key)

    @property
    def item_field(self) -> Scalar:
        (only,) = self.item.fields
        assert isinstance(only, Scalar)
        return only


@dataclass(frozen=True)
class Alternative:
    name: str
    when: tuple[int, ...]
    record: Record


@dataclass(frozen=True)
class Variant:
    """One of several records, chosen by a number. It has an attribute but no key of its own.

    `inside`: the number is the first field of each alternative. Otherwise it was read earlier, `levels`
    records outward (0: the record that holds the variant); None when there is no such field.
    """

    attribute: str
    on: str
    inside: bool
    levels: int | None
    alternatives: tuple[Alternative, ...]
    note: str = ""
    layout: str = ""


Field = Scalar | List | Blob | Variant


@dataclass(frozen=True)
class Record:
    """A C++ struct, a Python class and a piece of a payload, under one name."""

    type: str
    fields: tuple[Field, ...]

    def nested(self) -> Iterator[Record]:
        """Every record below this one, each after the records it holds itself."""
        for entry in self.fields:
            if isinstance(entry, (List, Blob)):
                yield from entry.item.tree()
            elif isinstance(entry, Variant):
                for alternative in entry.alternatives:
                    yield from alternative.record.tree()

    def tree(self) -> Iterator[Record]:
        """The records below, then this one: the order in which types can be declared."""
        yield from self.nested()
        yield self


@dataclass(frozen=True)
class Standing:
    """How much a layout can be trusted: "confirmed", "assumed", "site-confirmed"; "open" for error rows
    that nobody knows."""

    name: str
    why: str = ""
    confirmed_by: str = ""


@dataclass(frozen=True)
class Message:
    role: str
    record: Record
    standing: Standing


@dataclass(frozen=True)
class Row:
    code: int
    text: str


@dataclass(frozen=True)
class Table:
    """The known codes of the field `key`; `kind` is "Enum" or "Bitfield"."""

    key: str
    kind: str
    rows: tuple[Row, ...]
    standing: Standing

    @property
    def attribute(self) -> str:
        return names.attribute(self.key)


@dataclass(frozen=True)
class Facts:
    """What a command does, beside its layouts. Fields are given by their keys.

    `effect`: "read" if the machine's sorting, its settings and its stored data stay as they are, else "change"; a
    subscription belongs to the connection and is no change. `harmless`: why a read is believed to be one.
    `subscribes`: the field of the request that asks for notifications or ends them. `address`: the fields of the
    request that name what its notifications are about. `unasked`: when notifications come that no such field has
    asked for. `progress`: the number in the notifications that says how far the task is that the request began.
    """

    effect: str = "change"
    harmless: str = ""
    subscribes: str = ""
    address: tuple[str, ...] = ()
    unasked: str = ""
    progress: str = ""


@dataclass(frozen=True)
class Command:
    name: str
    id: int
    messages: tuple[Message, ...]
    errors: Table | None
    """The table of CommandError; None when no message carries one."""
    coded: tuple[Table, ...]
    about: str = ""
    file: str = ""
    overlay: bool = False
    facts: Facts = Facts()

    @property
    def snake(self) -> str:
        return names.command_snake(self.name)

    @property
    def constant(self) -> str:
        return names.command_constant(self.name)

    @property
    def tables(self) -> tuple[Table, ...]:
        """Every coded field: the command error first."""
        return ((self.errors,) if self.errors else ()) + self.coded

    def message(self, role: str) -> Message | None:
        return next((m for m in self.messages if m.role == role), None)

    def table(self, key: str) -> Table | None:
        return next((t for t in self.tables if t.key == key), None)

    def records(self) -> Iterator[Record]:
        for message in self.messages:
            yield from message.record.tree()


@dataclass(frozen=True)
class Family:
    """One file of the catalogue, and what overlays add under the same name."""

    name: str
    title: str
    about: str
    commands: tuple[Command, ...]


@dataclass(frozen=True)
class Catalogue:
    families: tuple[Family, ...]

    def commands(self) -> Iterator[Command]:
        for family in self.families:
            yield from family.commands

    def count(self, role: str) -> int:
        return sum(command.message(role) is not None for command in self.commands())


@dataclass(frozen=True)
class IndexEntry:
    id: int
    name: str
    roles: tuple[str, ...]


@dataclass(frozen=True)
class Index:
    """The control list: the commands and totals that the catalogue must come to."""

    file: str
    entries: tuple[IndexEntry, ...] = ()
    totals: dict[str, int] = field(default_factory=dict)


@dataclass(frozen=True)
class Finding:
    """One thing that is wrong, and where."""

    file: str
    text: str
    command: str = ""
    message: str = ""
    field: str = ""

    def __str__(self) -> str:
        where = [self.file, self.command, self.message, self.field]
        return ": ".join([part for part in where if part] + [self.text])


def each_once(findings: Iterable[Finding]) -> list[Finding]:
    """What is wrong inside a named layout is said for the first message that uses it; the others are added."""
    alike: dict[Finding, list[Finding]] = {}
    for finding in findings:
        shared = finding.field.startswith(f"{LAYOUTS}.")
        alike.setdefault(replace(finding, command="", message="") if shared else finding, []).append(finding)
    result = []
    for first, *others in alike.values():
        uses = dict.fromkeys((each.command, each.message) for each in others)
        also = "; ".join(": ".join(use) for use in uses if use != (first.command, first.message))
        result.append(replace(first, text=f"{first.text} (also in {also})") if also else first)
    return result
