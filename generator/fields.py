"""Turns the notation of fields into the records of the model: scalars, lists, blobs, variants, named layouts."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import replace
from typing import Any

from . import names
from .load import Document
from .model import (
    KEY,
    LAYOUTS,
    Alternative,
    Blob,
    Field,
    Finding,
    List,
    Record,
    Scalar,
    Variant,
)

MAX_DEPTH = 12

Scopes = tuple[tuple[Field, ...], ...]
"""The fields read so far: those of the record at hand first, then those of the enclosing ones outward."""


class FieldReader:
    """Reads the fields of one document; collects findings with the place they belong to."""

    def __init__(self, document: Document, findings: list[Finding]) -> None:
        self.document = document
        self.findings = findings
        self.command = ""
        self.message = ""
        self.path: list[str] = []
        self.layouts: dict[str, Any] = {}
        self.splicing: list[str] = []  # the named layouts that are being read, outmost first
        self.used: set[str] = set()

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
        return self.one_line(value.strip(), what)

    def one_line(self, text: str, what: str) -> str:
        """Texts become comments and literals, whose line must not end early or go on."""
        if not text.isprintable() or text.endswith("\\"):
            self.complain(f"{what} is one line of printable characters that does not end in a backslash")
        return text

    def unknown_keys(self, table: dict[str, Any], known: Sequence[str], field: str = "") -> None:
        for key in table:
            if key not in known:
                self.complain(f'unknown key "{key}"; known are {", ".join(known)}', field)

    # -- fields -------------------------------------------------------------------------------------

    def record(self, type_name: str, entries: Any, scopes: Scopes = ()) -> Record:
        """The fields of one record; `scopes` are the fields read so far in the enclosing ones, inmost first."""
        if not isinstance(entries, list):
            self.complain(f"fields must be an array in wire order, not {type(entries).__name__}")
            return Record(type_name, ())
        if len(scopes) >= MAX_DEPTH:
            self.complain(f"nested more than {MAX_DEPTH} records deep")
            return Record(type_name, ())
        fields: list[Field] = []
        self.append(fields, type_name, entries, scopes)
        return Record(type_name, tuple(fields))

    def append(
        self, fields: list[Field], container: str, entries: list[Any], scopes: Scopes, layout: str = ""
    ) -> None:
        """Reads entries to the end of `fields`; those of a named layout as if they were written in its place."""
        for entry in entries:
            if isinstance(entry, dict) and "layout" in entry:
                self.splice(fields, container, entry, scopes)
                continue
            read = self.field(container, entry, (tuple(fields), *scopes))
            if read is not None:
                fields.append(replace(read, layout=layout))

    def field(self, container: str, entry: Any, scopes: Scopes) -> Field | None:
        if isinstance(entry, str):
            return self.scalar(entry)
        if isinstance(entry, dict):
            if "list" in entry:
                return self.counted_list(container, entry, scopes)
            if "blob" in entry:
                return self.blob(container, entry)
            if "variant" in entry:
                return self.variant(container, entry, scopes)
        self.complain(
            f'{entry!r} is no field; a field is "Key: kind" or a list, blob, variant or layout table'
        )
        return None

    def scalar(self, entry: str) -> Scalar | None:
        notation, _, note = entry.partition("#")
        key, colon, kind = (part.strip() for part in notation.partition(":"))
        if not colon or not key:
            self.complain(f'"{entry}" is no field; write "Key: kind" or "Key: kind  # note"')
            return Scalar(key, "") if key else None
        return Scalar(key, kind or "(none)", self.one_line(note.strip(), "a note"))

    def counted_list(self, container: str, entry: dict[str, Any], scopes: Scopes) -> List:
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

    def variant(self, container: str, entry: dict[str, Any], scopes: Scopes) -> Variant:
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

    def alternative(self, container: str, entry: Any, scopes: Scopes) -> Alternative | None:
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

    # -- named layouts ------------------------------------------------------------------------------

    def read_layouts(self) -> None:
        """The [layouts] of the document. Their fields are read where they are used, as their names depend on it."""
        given = self.document.data.get(LAYOUTS, {})
        if not isinstance(given, dict):
            self.complain(f'write [{LAYOUTS}] and below it Name = ["Key: kind", ...]', LAYOUTS)
            return
        for name, entries in given.items():
            place = f"{LAYOUTS}.{name}"
            if not KEY.fullmatch(name):
                self.complain(f'"{name}" is no name for a layout; names are in upper camel case', place)
            if name in self.document.data:
                self.complain("has the name of a command of this file", place)
            if not isinstance(entries, list):
                kind = type(entries).__name__
                self.complain(f"fields must be an array in wire order, not {kind}", place)
            elif not entries:
                self.complain("has no field", place)
            self.layouts[name] = entries if isinstance(entries, list) else []

    def splice(self, fields: list[Field], container: str, entry: dict[str, Any], scopes: Scopes) -> None:
        """Puts the fields of a named layout where it is used. What is wrong in them is wrong in the layout."""
        self.unknown_keys(entry, ("layout",))
        name = self.text(entry, "layout", "the name of a layout", required=True)
        if name not in self.layouts:
            if name:
                self.complain(self.unknown_layout(name))
            return
        if name in self.splicing:
            ring = " > ".join([*self.splicing[self.splicing.index(name) :], name])
            self.complain(f"a layout may not use itself: {ring}")
            return
        self.used.add(name)
        self.splicing.append(name)
        user, self.path = self.path, [LAYOUTS, name]
        self.append(fields, container, self.layouts[name], scopes, name)
        self.path = user
        self.splicing.pop()

    def unknown_layout(self, name: str) -> str:
        known = ", ".join(self.layouts) or "none"
        hint = "; an overlay cannot use those of the catalogue" if self.document.layer > 0 else ""
        return f'unknown layout "{name}"; known in this file: {known}{hint}'

    def unused_layouts(self) -> None:
        for name in self.layouts:
            if name not in self.used:
                self.complain("no message uses it", f"{LAYOUTS}.{name}")


def find_outward(key: str, scopes: Scopes) -> int | None:
    """How many records outward the field `key` has been read: 0 is the record at hand."""
    for level, fields in enumerate(scopes):
        if any(isinstance(f, Scalar) and f.key == key for f in fields):
            return level
    return None
