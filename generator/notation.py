"""Turns the notation of the TOML files into the model; says what cannot be read as notation.

What a definition means is judged later, in `validate`: here a field that makes no sense is kept as well
as possible, so that one run reports everything that is wrong.
"""

from __future__ import annotations

import re
from dataclasses import dataclass, replace
from typing import Any

from . import names
from .fields import FieldReader
from .load import Document
from .model import (
    COMMAND_ERROR,
    LAYOUTS,
    ROLES,
    Command,
    Facts,
    Family,
    Finding,
    Index,
    IndexEntry,
    Message,
    Record,
    Row,
    Scalar,
    Standing,
    Table,
)

HEAD_KEYS = ("title", "standing", "about", "confirmed_by")
FACT_KEYS = tuple(Facts.__dataclass_fields__)
COMMAND_KEYS = (
    *("id", *ROLES, "errors", "coded", "confirmed", "assumed", "why", "confirmed_by", "about"),
    *FACT_KEYS,
)
STANDINGS = ("confirmed", "assumed")


@dataclass(frozen=True)
class Head:
    """What the head of a file says for all of its commands."""

    title: str = ""
    standing: str = "assumed"
    about: str = ""
    confirmed_by: str = ""


class Reader(FieldReader):
    """Reads one document: its head and its named layouts, then command by command."""

    # -- tables of codes ----------------------------------------------------------------------------

    def rows(self, entries: Any) -> tuple[Row, ...]:
        if not isinstance(entries, list):
            self.complain("rows must be an array of strings")
            return ()
        read = [self.row(entry) for entry in entries]
        return tuple(row for row in read if row)

    def row(self, entry: Any) -> Row | None:
        # The text is taken as it stands, so that a stray blank or "; " at its end is seen and refused.
        match = (
            re.fullmatch(r"(0[xX][0-9A-Fa-f]+|[0-9]+) (.*)", entry, re.DOTALL)
            if isinstance(entry, str)
            else None
        )
        if not match:
            self.complain(f'{entry!r} is no row; write "0x0001 Text" or "1 Text"')
            return None
        return Row(int(match[1], 0) if match[1].lower().startswith("0x") else int(match[1]), match[2])

    # -- commands -----------------------------------------------------------------------------------

    def head(self) -> Head:
        data = self.document.data
        table = {key: value for key, value in data.items() if not isinstance(value, dict) and key != LAYOUTS}
        self.unknown_keys(table, HEAD_KEYS)
        standing = self.text(table, "standing", "standing") or "assumed"
        if standing not in STANDINGS:
            self.complain(f'standing is "confirmed" or "assumed", not "{standing}"')
            standing = "assumed"
        confirmed_by = self.text(table, "confirmed_by", "confirmed_by")
        self.confirmation_rules(confirmed_by, standing == "confirmed")
        title = self.text(table, "title", "title", required=self.document.layer == 0)
        return Head(title, standing, self.text(table, "about", "about"), confirmed_by)

    def confirmation_rules(self, confirmed_by: str, claims_confirmed: bool) -> None:
        """Only the catalogue says "confirmed", only an overlay names who confirmed on site."""
        if confirmed_by and self.document.layer == 0:
            self.complain(
                "confirmed_by belongs into an overlay; the catalogue itself is confirmed or assumed"
            )
        if claims_confirmed and self.document.layer > 0:
            self.complain(
                'an overlay confirms with confirmed_by = "machine type, software version, date, by whom"'
            )

    def commands(self, head: Head) -> list[Command]:
        data = self.document.data
        tables = {key: value for key, value in data.items() if isinstance(value, dict) and key != LAYOUTS}
        self.read_layouts()
        commands = [self.read_command(name, table, head) for name, table in tables.items()]
        self.unused_layouts()
        return commands

    def read_command(self, name: str, table: dict[str, Any], head: Head) -> Command:
        self.command = name
        self.unknown_keys(table, COMMAND_KEYS)
        number = table.get("id")
        if type(number) is not int:
            self.complain("id is missing" if number is None else f"id must be a number, not {number!r}")
            number = 0
        standings = self.standings(table, head)
        messages = []
        for role in (role for role in ROLES if role in table):
            self.message = role
            record = self.record(names.message_type(name, role), table[role])
            messages.append(Message(role, record, standings[role]))
        errors, coded = self.code_tables(table, messages, standings)
        self.message = ""
        facts, overlay = self.facts(table), self.document.layer > 0
        self.command = ""
        about = self.text(table, "about", "about")
        return Command(
            name, number, tuple(messages), errors, coded, about, self.document.file, overlay, facts
        )

    def facts(self, table: dict[str, Any]) -> Facts:
        address = table.get("address", [])
        if not isinstance(address, list) or not all(isinstance(key, str) for key in address):
            self.complain('write address = ["Key", ...]')
            address = []
        texts = {key: self.text(table, key, key) for key in FACT_KEYS if key not in ("effect", "address")}
        effect = self.text(table, "effect", "effect") or Facts.effect
        return Facts(effect=effect, address=tuple(address), **texts)

    def standings(self, table: dict[str, Any], head: Head) -> dict[str, Standing]:
        """The standing of each message and of the error rows."""
        parts = (*ROLES, "errors")
        confirmed, assumed = table.get("confirmed", []), table.get("assumed", {})
        if not isinstance(confirmed, list) or not isinstance(assumed, dict):
            self.complain('write confirmed = ["response"] and assumed.response = "why"')
            confirmed, assumed = [], {}
        for part in dict.fromkeys([*confirmed, *assumed]):
            if part not in parts:
                self.complain(f'standing of "{part}"; it must be one of {", ".join(parts)}')
            elif part not in table:
                self.complain(f'standing of "{part}", which the command does not have')
            elif part in confirmed and part in assumed:
                self.complain(f"{part} is called both confirmed and assumed")
        why = self.text(table, "why", "why")
        by = self.text(table, "confirmed_by", "confirmed_by")
        self.confirmation_rules(by, bool(confirmed))
        by = by or head.confirmed_by
        result = {}
        for part in parts:
            reason = self.text(assumed, part, f"assumed.{part}", required=part in assumed)
            if part in assumed:
                result[part] = Standing("assumed", reason)
            elif by:
                result[part] = Standing("site-confirmed", "", by)
            elif part in confirmed or head.standing == "confirmed":
                result[part] = Standing("confirmed")
            else:
                result[part] = Standing("assumed", why)
        return result

    def code_tables(
        self, table: dict[str, Any], messages: list[Message], standings: dict[str, Standing]
    ) -> tuple[Table | None, tuple[Table, ...]]:
        self.message = "errors"
        carries = any(has_key(m.record, COMMAND_ERROR) for m in messages if m.role != "request")
        errors = None
        if "errors" in table:
            errors = Table(COMMAND_ERROR, "Bitfield", self.rows(table["errors"]), standings["errors"])
        elif carries:
            errors = Table(COMMAND_ERROR, "Bitfield", (), Standing("open"))
        self.message = "coded"
        given = table.get("coded", {})
        if not isinstance(given, dict):
            self.complain('write coded.Key = ["0 Text", ...]')
            given = {}
        coded = []
        for key, entries in given.items():
            if key == COMMAND_ERROR:
                self.complain(f"the rows of {COMMAND_ERROR} are written as errors = [...]", key)
                continue
            self.path.append(key)
            holder = next((m.role for m in messages if has_key(m.record, key)), "response")
            coded.append(Table(key, "Enum", self.rows(entries), standings[holder]))
            self.path.pop()
        self.message = ""
        return errors, tuple(coded)


def has_key(record: Record, key: str) -> bool:
    return any(isinstance(f, Scalar) and f.key == key for each in record.tree() for f in each.fields)


def read_index(document: Document | None, findings: list[Finding]) -> Index:
    if document is None:
        return Index("")
    entries = []
    for line in document.data.get("commands", []):
        words = str(line).split()
        roles = tuple(role for role, word in zip(ROLES, words[2:], strict=False) if word == role)
        marks = [word for word in words[2:] if word != "-"]
        if len(words) != 5 or not words[0].isdigit() or marks != list(roles):
            findings.append(
                Finding(document.file, f'"{line}" is not "id Name request|- response|- notification|-"')
            )
            continue
        entries.append(IndexEntry(int(words[0]), words[1], roles))
    totals = document.data.get("totals", {})
    return Index(document.file, tuple(entries), {str(key): value for key, value in totals.items()})


def read_families(documents: list[Document], findings: list[Finding]) -> tuple[Family, ...]:
    """The families, with the commands of overlays put in the place of those they replace."""
    families: dict[str, Family] = {}
    home: dict[str, tuple[str, int]] = {}  # command -> its family and the layer it came from
    for document in documents:
        reader = Reader(document, findings)
        head = reader.head()
        title = head.title or document.family.replace("_", " ").capitalize()
        families.setdefault(document.family, Family(document.family, title, head.about, ()))
        for command in reader.commands(head):
            family, layer = home.get(command.name, (document.family, -1))
            if layer == document.layer:
                first = next(c for c in families[family].commands if c.name == command.name)
                findings.append(Finding(document.file, f"is also defined in {first.file}", command.name))
            home[command.name] = (family, document.layer)
            families[family] = put(families[family], command)
    return tuple(families[name] for name in sorted(families))


def put(family: Family, command: Command) -> Family:
    others = tuple(each for each in family.commands if each.name != command.name)
    ordered = sorted((*others, command), key=lambda each: (each.id, each.name))
    return replace(family, commands=tuple(ordered))
