"""Turns the notation of the TOML files into the model; says what cannot be read as notation.

What a definition means is judged later, in `validate`: here a field that makes no sense is kept as well
as possible, so that one run reports everything that is wrong.
"""

from __future__ import annotations

import re
from collections.abc import Sequence
from dataclasses import dataclass, replace
from typing import Any

from . import names
from .load import Document
from .model import (
    COMMAND_ERROR,
    ROLES,
    Alternative,
    Blob,
    Command,
    Family,
    Field,
    Finding,
    Index,
    IndexEntry,
    List,
    Message,
    Record,
    Row,
    Scalar,
    Standing,
    Table,
    Variant,
)

HEAD_KEYS = ("title", "standing", "about", "confirmed_by")
COMMAND_KEYS = ("id", *ROLES, "errors", "coded", "confirmed", "assumed", "why", "confirmed_by", "about")
STANDINGS = ("confirmed", "assumed")
MAX_DEPTH = 12


@dataclass(frozen=True)
class Head:
    """What the head of a file says for all of its commands."""

    title: str = ""
    standing: str = "assumed"
    about: str = ""
    confirmed_by: str = ""


class Reader:
    """Reads one document; collects findings with the place they belong to."""

    def __init__(self, document: Document, findings: list[Finding]) -> None:
        self.document = document
        self.findings = findings
        self.command = ""
        self.message = ""
        self.path: list[str] = []

    def complain(self, text: str, field: str = "") -> None:
        where = ".".join([*self.path, field] if field else self.path)
        self.findings.append(Finding(self.document.file, text, self.command, self.message, where))

    # -- small values -------------------------------------------------------------------------------

    def text(self, table: dict[str, Any], key: str, what: str, required: bool = False) -> str:
        value = table.get(key, "")
        if not isinstance(value, str):
            self.complain(f"{what} must be a string, not {value!r}")
            return ""
        if required and not value.strip():
            self.complain(f"{what} is missing")
        return value.strip()

    def unknown_keys(self, table: dict[str, Any], known: Sequence[str], field: str = "") -> None:
        for key in table:
            if key not in known:
                self.complain(f'unknown key "{key}"; known are {", ".join(known)}', field)

    # -- fields -------------------------------------------------------------------------------------

    def record(self, type_name: str, entries: Any, scopes: tuple[tuple[Field, ...], ...] = ()) -> Record:
        """The fields of one record; `scopes` are the fields read so far in the enclosing ones, inmost first."""
        if not isinstance(entries, list):
            self.complain(f"fields must be an array in wire order, not {type(entries).__name__}")
            return Record(type_name, ())
        if len(scopes) >= MAX_DEPTH:
            self.complain(f"nested more than {MAX_DEPTH} records deep")
            return Record(type_name, ())
        fields: list[Field] = []
        for entry in entries:
            read = self.field(type_name, entry, (tuple(fields), *scopes))
            if read is not None:
                fields.append(read)
        return Record(type_name, tuple(fields))

    def field(self, container: str, entry: Any, scopes: tuple[tuple[Field, ...], ...]) -> Field | None:
        if isinstance(entry, str):
            return self.scalar(entry)
        if isinstance(entry, dict):
            if "list" in entry:
                return self.counted_list(container, entry, scopes)
            if "blob" in entry:
                return self.blob(container, entry)
            if "variant" in entry:
                return self.variant(container, entry, scopes)
        self.complain(f'{entry!r} is no field; a field is "Key: kind" or a list, blob or variant table')
        return None

    def scalar(self, entry: str) -> Scalar | None:
        notation, _, note = entry.partition("#")
        key, colon, kind = (part.strip() for part in notation.partition(":"))
        if not colon or not key:
            self.complain(f'"{entry}" is no field; write "Key: kind" or "Key: kind  # note"')
            return Scalar(key, "") if key else None
        return Scalar(key, kind or "(none)", note.strip())

    def counted_list(
        self, container: str, entry: dict[str, Any], scopes: tuple[tuple[Field, ...], ...]
    ) -> List:
        base = self.text(entry, "list", "the base name of a list", required=True)
        self.path.append(names.list_key(base))
        self.unknown_keys(entry, ("list", "count", "items", "note"))
        count = self.text(entry, "count", "the count of a list", required=True)
        item = self.record(names.item_type(container, base), entry.get("items", []), scopes)
        self.path.pop()
        return List(base, count, item, self.text(entry, "note", "a note"))

    def blob(self, container: str, entry: dict[str, Any]) -> Blob:
        key = self.text(entry, "blob", "the key of a blob", required=True)
        self.path.append(key)
        self.unknown_keys(entry, ("blob", "count", "item", "note"))
        count = self.text(entry, "count", "the count of a blob", required=True)
        byte = Scalar(self.text(entry, "item", "the key of a blob's byte", required=True), "u8")
        self.path.pop()
        item = Record(names.item_type(container, key), (byte,))
        return Blob(key, count, item, self.text(entry, "note", "a note"))

    def variant(
        self, container: str, entry: dict[str, Any], scopes: tuple[tuple[Field, ...], ...]
    ) -> Variant:
        attribute = self.text(entry, "variant", "the attribute of a variant", required=True)
        self.path.append(attribute)
        self.unknown_keys(entry, ("variant", "on", "alternatives", "note"))
        on = self.text(entry, "on", "the discriminator of a variant", required=True)
        given = entry.get("alternatives", [])
        if not isinstance(given, list):
            self.complain("alternatives must be an array of tables")
            given = []
        read = [self.alternative(container, each, scopes) for each in given]
        alternatives = tuple(each for each in read if each)
        self.path.pop()
        starts = [each.record.fields[:1] for each in alternatives]
        inside = any(start and isinstance(start[0], Scalar) and start[0].key == on for start in starts)
        levels = None if inside else find_outward(on, scopes)
        return Variant(attribute, on, inside, levels, alternatives, self.text(entry, "note", "a note"))

    def alternative(
        self, container: str, entry: Any, scopes: tuple[tuple[Field, ...], ...]
    ) -> Alternative | None:
        if not isinstance(entry, dict):
            self.complain(
                f"{entry!r} is no alternative; write {{ name = ..., when = [...], fields = [...] }}"
            )
            return None
        name = self.text(entry, "name", "the name of an alternative", required=True)
        self.path.append(name)
        self.unknown_keys(entry, ("name", "when", "fields"))
        when = entry.get("when", [])
        if not isinstance(when, list) or not all(type(value) is int for value in when):
            self.complain("when must be an array of numbers")
            when = []
        record = self.record(container + name, entry.get("fields", []), scopes)
        self.path.pop()
        return Alternative(name, tuple(when), record)

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
        table = {key: value for key, value in self.document.data.items() if not isinstance(value, dict)}
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
        tables = {key: value for key, value in self.document.data.items() if isinstance(value, dict)}
        return [self.read_command(name, table, head) for name, table in tables.items()]

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
        self.command = self.message = ""
        about = self.text(table, "about", "about")
        overlay = self.document.layer > 0
        return Command(name, number, tuple(messages), errors, coded, about, self.document.file, overlay)

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


def find_outward(key: str, scopes: tuple[tuple[Field, ...], ...]) -> int | None:
    """How many records outward the field `key` has been read: 0 is the record at hand."""
    for level, fields in enumerate(scopes):
        if any(isinstance(f, Scalar) and f.key == key for f in fields):
            return level
    return None


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
