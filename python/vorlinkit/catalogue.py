"""The commands of the protocol as plain data: ids, payload layouts and how sure they are, texts of codes, and what
a command does.

The data is ``catalogue.json``, which the build writes beside this file. It comes from the same definitions as
the C++ and Python types, overlays included, so what ``layout_status()`` reports is what was built.
"""

from __future__ import annotations

import json
import os
from collections import Counter
from collections.abc import Iterator, Mapping
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Final, Literal, Union

Kind = Literal["u8", "u16", "u32", "u64", "string", "uuid"]
Standing = Literal["confirmed", "assumed", "site-confirmed"]
Effect = Literal["read", "change"]
MessageKind = Literal["request", "response", "notification"]

MESSAGE_KINDS: Final[tuple[MessageKind, ...]] = ("request", "response", "notification")
NUMBER_WIDTHS: Final[Mapping[str, int]] = {"u8": 1, "u16": 2, "u32": 4, "u64": 8}

DEFAULT_PATH: Final = Path(__file__).with_name("catalogue.json")
PATH_VARIABLE: Final = "VORLINKIT_CATALOGUE"


class CatalogueError(Exception):
    """The catalogue file is missing or does not have the expected form; the text says what to do."""


@dataclass(frozen=True)
class ScalarField:
    """A number, a 0-terminated string or a uuid."""

    key: str
    attribute: str
    kind: Kind
    note: str


@dataclass(frozen=True)
class ListField:
    """A list of records; ``count`` is the key of the field ahead of it that says how many."""

    key: str
    attribute: str
    count: str
    type: str
    items: tuple[Field, ...]


@dataclass(frozen=True)
class BlobField:
    """Raw bytes; ``count`` is the key of the field ahead of them that says how many."""

    key: str
    attribute: str
    count: str
    type: str
    item: str
    item_attribute: str


@dataclass(frozen=True)
class Alternative:
    """One shape of a variant, chosen by the discriminator values ``when``."""

    name: str
    type: str
    when: tuple[int, ...]
    fields: tuple[Field, ...]


@dataclass(frozen=True)
class VariantField:
    """One of several shapes, chosen by the number ``on``.

    ``inside``: the discriminator is the first field of every alternative; otherwise it stands earlier in the
    same record or in an enclosing one.
    """

    attribute: str
    on: str
    inside: bool
    alternatives: tuple[Alternative, ...]


Field = Union[ScalarField, ListField, BlobField, VariantField]


@dataclass(frozen=True)
class CodedValue:
    """One row of a code table."""

    code: int
    text: str


@dataclass(frozen=True)
class Message:
    """One payload type: its fields in wire order, and how sure that order is."""

    type: str
    standing: Standing
    why: str
    confirmed_by: str
    fields: tuple[Field, ...]


@dataclass(frozen=True)
class Command:
    """One command: its messages, and what is known of it beside their layouts.

    ``errors`` is None when no message carries a CommandError.

    ``effect``: "read" if the machine's sorting, its settings and its stored data stay as they are, and then
    ``harmless`` says why that is believed; otherwise, and in doubt, "change". It was judged from names,
    fields and texts, not at a machine. A subscription belongs to the connection and is no change.

    ``subscribes``: the key of the request's field that asks for notifications (0 presumably ends them), "" if
    there is none. ``unasked`` then says when they come, and is "" otherwise; both are "" for a command
    without notifications. ``address``: the keys of the request's fields that name what the notifications are
    about; asking again about the same object replaces the earlier subscription. ``progress``: the key of the
    notification's field that says, in percent, how far the task is that the request began, "" if none does.
    ``about``: what else is worth knowing of it, mostly nothing.
    """

    id: int
    name: str
    snake: str
    family: str
    title: str
    messages: Mapping[MessageKind, Message] = field(repr=False)
    errors: tuple[CodedValue, ...] | None
    errors_standing: str
    coded: Mapping[str, tuple[CodedValue, ...]]
    effect: Effect
    harmless: str
    subscribes: str
    address: tuple[str, ...]
    unasked: str
    progress: str
    about: str = ""

    @property
    def request(self) -> Message | None:
        return self.messages.get("request")

    @property
    def response(self) -> Message | None:
        return self.messages.get("response")

    @property
    def notification(self) -> Message | None:
        return self.messages.get("notification")


@dataclass(frozen=True)
class LayoutStatus:
    """How sure one layout is.

    ``confirmed``: fixed by the protocol's own description. ``assumed``: laid out by us from the protocol's
    customs (``why`` gives the reason where the choice was not obvious); check it before relying on it.
    ``site-confirmed``: corrected or checked at a machine, by whom and when stands in ``confirmed_by``.
    """

    standing: Standing
    why: str
    confirmed_by: str


@dataclass(frozen=True)
class Catalogue:
    """All commands, in the order of the catalogue."""

    commands: tuple[Command, ...] = field(repr=False)
    path: str

    def with_id(self, command_id: int) -> tuple[Command, ...]:
        """The commands with this id: none, one, or two where the protocol lets two layouts share an id."""
        return tuple(command for command in self.commands if command.id == command_id)

    def named(self, name: str) -> Command:
        """The command of this name, in either spelling (``GetMachineInfo``, ``get_machine_info``)."""
        for command in self.commands:
            if name in (command.name, command.snake):
                return command
        raise KeyError(name)

    def layouts(self) -> Iterator[tuple[Command, MessageKind, Message]]:
        """Every payload type of every command."""
        for command in self.commands:
            for kind in MESSAGE_KINDS:
                message = command.messages.get(kind)
                if message is not None:
                    yield command, kind, message

    def standings(self) -> Mapping[str, int]:
        """How many payload types are confirmed, assumed and site-confirmed."""
        return Counter(message.standing for _, _, message in self.layouts())


def load(path: str | os.PathLike[str] | None = None) -> Catalogue:
    """Read a catalogue file.

    Without ``path`` it is the file named by the environment variable VORLINKIT_CATALOGUE, else the one that
    the build wrote beside this module. Raises CatalogueError with a text that says what to do.
    """
    place = Path(path or os.environ.get(PATH_VARIABLE) or DEFAULT_PATH)
    try:
        text = place.read_text(encoding="utf-8")
    except FileNotFoundError:
        raise CatalogueError(_how_to_get(place)) from None
    except OSError as error:
        raise CatalogueError(f"The catalogue {place} cannot be read: {error.strerror}.") from error
    try:
        data = json.loads(text)
        return Catalogue(commands=tuple(_command(entry) for entry in data["commands"]), path=str(place))
    except (ValueError, KeyError, TypeError, AttributeError) as error:
        raise CatalogueError(
            f"{place} is not a catalogue of this version ({error!r}). Build it again."
        ) from error


def layout_status(catalogue: Catalogue | None = None) -> Mapping[str, LayoutStatus]:
    """How sure the layout of every payload type is, by type name (``GetMotorPositionResponse``)."""
    chosen = catalogue if catalogue is not None else load()
    return {
        message.type: LayoutStatus(message.standing, message.why, message.confirmed_by)
        for _, _, message in chosen.layouts()
    }


def _how_to_get(place: Path) -> str:
    return (
        f"There is no catalogue at {place}.\n"
        "The build writes it. From the top of the source tree:\n"
        "    cmake --preset release && cmake --build --preset release\n"
        "and then run Python with PYTHONPATH=build/release/python.\n"
        "A catalogue from elsewhere is named with --catalogue FILE or with the environment variable "
        f"{PATH_VARIABLE}."
    )


def _command(entry: Mapping[str, Any]) -> Command:
    errors = entry.get("errors")
    return Command(
        id=int(entry["id"]),
        name=entry["name"],
        snake=entry["snake"],
        family=entry.get("family", ""),
        title=entry.get("title", ""),
        messages={
            kind: _message(entry["messages"][kind]) for kind in MESSAGE_KINDS if kind in entry["messages"]
        },
        errors=None if errors is None else _codes(errors),
        errors_standing=entry.get("errors_standing", ""),
        coded={key: _codes(rows) for key, rows in (entry.get("coded") or {}).items()},
        effect=entry["effect"],
        harmless=entry["harmless"],
        subscribes=entry["subscribes"],
        address=tuple(entry["address"]),
        unasked=entry["unasked"],
        progress=entry["progress"],
        about=entry.get("about", ""),
    )


def _message(entry: Mapping[str, Any]) -> Message:
    return Message(
        type=entry["type"],
        standing=entry["standing"],
        why=entry.get("why", ""),
        confirmed_by=entry.get("confirmed_by", ""),
        fields=_fields(entry["fields"]),
    )


def _codes(rows: list[Mapping[str, Any]]) -> tuple[CodedValue, ...]:
    return tuple(CodedValue(int(row["code"]), row["text"]) for row in rows)


def _fields(entries: list[Mapping[str, Any]]) -> tuple[Field, ...]:
    return tuple(_field(entry) for entry in entries)


def _field(entry: Mapping[str, Any]) -> Field:
    kind = entry["kind"]
    if kind == "list":
        return ListField(
            entry["key"], entry["attribute"], entry["count"], entry["type"], _fields(entry["items"])
        )
    if kind == "blob":
        return BlobField(
            entry["key"],
            entry["attribute"],
            entry["count"],
            entry["type"],
            entry["item"],
            entry["item_attribute"],
        )
    if kind == "variant":
        alternatives = tuple(
            Alternative(one["name"], one["type"], tuple(one["when"]), _fields(one["fields"]))
            for one in entry["alternatives"]
        )
        return VariantField(entry["attribute"], entry["on"], bool(entry["inside"]), alternatives)
    if kind in NUMBER_WIDTHS or kind in ("string", "uuid"):
        return ScalarField(entry["key"], entry["attribute"], kind, entry.get("note", ""))
    raise ValueError(f"unknown field kind {kind!r}")
