"""Judges the model: everything that is wrong, with file, command, message and field, all at once."""

from __future__ import annotations

import re
from collections.abc import Iterator

from . import names
from .facts import fact_findings
from .model import (
    COMMAND_ERROR,
    INTEGER_BITS,
    KEY,
    LAYOUTS,
    SCALAR_KINDS,
    Alternative,
    Blob,
    Catalogue,
    Command,
    Field,
    Finding,
    Index,
    List,
    Message,
    Record,
    Scalar,
    Table,
    Variant,
)

COMMAND_NAME = re.compile(r"([A-Z][a-z0-9]*)+")
ATTRIBUTE = re.compile(r"[a-z][a-z0-9]*(_[a-z0-9]+)*")
FAMILY_NAME = re.compile(r"[a-z][a-z0-9_]*")
MAX_ROWS = 23


def validate(catalogue: Catalogue, index: Index, partial: bool = False) -> list[Finding]:
    """Everything that is wrong; an empty list means that the catalogue can be emitted.

    `partial`: only some families are at hand, so totals and missing commands are not judged.
    """
    findings = [
        Finding(f"{family.name}.toml", "a family's file name becomes a header name: lower case, digits and _")
        for family in catalogue.families
        if not FAMILY_NAME.fullmatch(family.name)
    ]
    for command in catalogue.commands():
        findings += command_findings(command)
    findings += id_findings(catalogue, index)
    findings += index_findings(catalogue, index, partial)
    findings += name_findings(catalogue)
    return findings


# -- one command --------------------------------------------------------------------------------------


def command_findings(command: Command) -> Iterator[Finding]:
    def complain(text: str, message: str = "", field: str = "") -> Finding:
        return Finding(command.file, text, command.name, message, field)

    if not COMMAND_NAME.fullmatch(command.name):
        yield complain("a command's name is in upper camel case")
    if not 1 <= command.id <= 0xFFFF:
        yield complain(f"id {command.id} is not between 1 and 65535")
    for message in command.messages:
        if not message.record.fields:
            yield complain("has no field; a message without a payload is not listed at all", message.role)
        for where, text in record_findings(message.record):
            yield complain(text, message.role, where)
        for where, text in message_findings(message):
            yield complain(text, message.role, where)
    for (part, field), text in table_findings(command):
        yield complain(text, part, field)
    for text in fact_findings(command):
        yield complain(text)


def place(path: str, field: Field) -> str:
    """Where a field is written: at the end of a path, or in the named layout that it was taken from."""
    name = field.attribute if isinstance(field, Variant) else field.key
    return f"{LAYOUTS}.{field.layout}.{name}" if field.layout else path + name


def places(record: Record, path: str = "") -> Iterator[tuple[str, Field]]:
    """Every field of a tree with the path that leads to it."""
    for field in record.fields:
        here = place(path, field)
        yield here, field
        if isinstance(field, List | Blob):
            yield from places(field.item, here + ".")
        elif isinstance(field, Variant):
            for alternative in field.alternatives:
                yield from places(alternative.record, f"{here}.{alternative.name}.")


def record_findings(record: Record, path: str = "") -> Iterator[tuple[str, str]]:
    yield from duplicate_findings(record, path)
    for position, field in enumerate(record.fields):
        here = place(path, field)
        match field:
            case Scalar():
                yield from ((here, text) for text in scalar_findings(field))
            case List() | Blob():
                yield from ((here, text) for text in count_findings(field, record.fields[:position]))
                if not field.item.fields:
                    yield here, "its items have no field"
                yield from record_findings(field.item, here + ".")
            case Variant():
                yield from ((here, text) for text in variant_findings(field))
                for alternative in field.alternatives:
                    yield from record_findings(alternative.record, f"{here}.{alternative.name}.")


def scalar_findings(field: Scalar) -> Iterator[str]:
    if not field.kind:
        return  # the entry could not be read at all, which has been said
    if not KEY.fullmatch(field.key):
        yield f'"{field.key}" is no key; keys are in upper camel case'
    if field.kind not in SCALAR_KINDS:
        yield f'unknown kind "{field.kind}"; kinds are {", ".join(SCALAR_KINDS)}'


def count_findings(field: List | Blob, earlier: tuple[Field, ...]) -> Iterator[str]:
    base = field.base if isinstance(field, List) else field.key
    if base and not KEY.fullmatch(base):
        yield f'"{base}" is no name for a list or blob; names are in upper camel case'
    counts = [each for each in earlier if isinstance(each, Scalar) and each.key == field.count]
    if field.count and not counts:
        yield f'its count "{field.count}" is not an earlier field of the same record'
    elif counts and counts[0].kind and not counts[0].is_integer:
        yield f'its count "{field.count}" is a {counts[0].kind}; a count is an integer'


def variant_findings(variant: Variant) -> Iterator[str]:
    if variant.attribute and not ATTRIBUTE.fullmatch(variant.attribute):
        yield f'"{variant.attribute}" is no attribute; attributes are in lower snake case'
    if not variant.alternatives:
        yield "has no alternatives"
        return
    yield from discriminator_findings(variant)
    seen: dict[int, str] = {}
    for alternative in variant.alternatives:
        if not KEY.fullmatch(alternative.name):
            yield f'"{alternative.name}" is no name for an alternative; names are in upper camel case'
        if not alternative.when:
            yield f"alternative {alternative.name}: when is empty, so nothing selects it"
        if not alternative.record.fields:
            yield f"alternative {alternative.name}: has no field"
        for value in alternative.when:
            if value in seen:
                yield f"alternative {alternative.name}: {value} already selects {seen[value]}"
            seen.setdefault(value, alternative.name)


def discriminator_findings(variant: Variant) -> Iterator[str]:
    if not variant.inside:
        if variant.on and variant.levels is None:
            yield f'its discriminator "{variant.on}" is not an earlier field of this or an enclosing record'
        return
    kinds = set()
    for alternative in variant.alternatives:
        first = alternative.record.fields[0] if alternative.record.fields else None
        if isinstance(first, Scalar) and first.key == variant.on:
            kinds.add(first.kind)
        else:
            yield f'alternative {alternative.name}: does not begin with "{variant.on}" as the others do'
    if len(kinds) > 1:
        yield f'its discriminator "{variant.on}" has different kinds: {", ".join(sorted(kinds))}'


def discriminators(
    record: Record, path: str = "", enclosing: tuple[Record, ...] = ()
) -> Iterator[tuple[str, Variant, Scalar]]:
    """Every variant of a tree whose discriminator is known: where it is, itself, and that discriminator."""
    scopes = (record, *enclosing)
    for field in record.fields:
        here = place(path, field)
        if isinstance(field, List | Blob):
            yield from discriminators(field.item, here + ".", scopes)
        if not isinstance(field, Variant):
            continue
        holder = first_record(field.alternatives) if field.inside else None
        if field.levels is not None:
            holder = scopes[field.levels]
        if holder:
            yield here, field, next(f for f in holder.fields if isinstance(f, Scalar) and f.key == field.on)
        for alternative in field.alternatives:
            yield from discriminators(alternative.record, f"{here}.{alternative.name}.", scopes)


def first_record(alternatives: tuple[Alternative, ...]) -> Record:
    """The first alternative that has fields: an inside discriminator is its first one."""
    return next(each.record for each in alternatives if each.record.fields)


def duplicate_findings(record: Record, path: str) -> Iterator[tuple[str, str]]:
    """Keys and attributes that would collide; an alternative's keys stand among those of its holder."""
    keys: set[str] = set()
    attributes: dict[str, str] = {}
    for field in record.fields:
        name = field.attribute if isinstance(field, Variant) else field.key
        if field.attribute in attributes and name not in keys:
            text = f'has the attribute "{field.attribute}", as {attributes[field.attribute]} has'
            yield place(path, field), text
        attributes.setdefault(field.attribute, name)
        if isinstance(field, Variant):
            shown = {key for alternative in field.alternatives for key in rendered_keys(alternative.record)}
        else:
            shown = {field.key}
        for key in sorted(shown & keys):
            yield place(path, field), f'the key "{key}" stands in this record twice'
        keys |= shown


def rendered_keys(record: Record) -> Iterator[str]:
    for field in record.fields:
        if isinstance(field, Variant):
            for alternative in field.alternatives:
                yield from rendered_keys(alternative.record)
        else:
            yield field.key


# -- code tables --------------------------------------------------------------------------------------


def message_findings(message: Message) -> Iterator[tuple[str, str]]:
    for where, field in places(message.record):
        if isinstance(field, Scalar) and field.kind == "uuid" and message.role == "request":
            yield where, "a request carries no uuid; identifiers sent to the machine are strings"
        if isinstance(field, Scalar) and field.key == COMMAND_ERROR:
            if message.role == "request":
                yield where, "a request carries no command error"
            elif field.kind and field.kind != "u16":
                yield where, f"a command error is a u16, not a {field.kind}"
    for where, variant, discriminator in discriminators(message.record):
        if discriminator.kind and not discriminator.is_integer:
            yield where, f'its discriminator "{variant.on}" is a {discriminator.kind}, not an integer'
            continue
        limit = 1 << INTEGER_BITS.get(discriminator.kind, 64)
        for value in (value for each in variant.alternatives for value in each.when):
            if not 0 <= value < limit:
                yield where, f'{value} does not fit "{variant.on}", which is a {discriminator.kind}'


def table_findings(command: Command) -> Iterator[tuple[tuple[str, str], str]]:
    for table in command.tables:
        where = ("errors", "") if table is command.errors else ("coded", table.key)
        fields = [
            (message.role, field)
            for message in command.messages
            for _, field in places(message.record)
            if isinstance(field, Scalar) and field.key == table.key
        ]
        if table is command.errors:
            if not any(role != "request" for role, _ in fields):
                yield where, f"rows are given, but neither response nor notification has a {COMMAND_ERROR}"
        elif not fields:
            yield where, "no field has this key"
        for role, field in fields:
            if table is not command.errors and field.kind and field.kind not in ("u8", "u16"):
                yield where, f"{role}: a coded field is a u8 or u16, not a {field.kind}"
        for text in row_findings(table):
            yield where, text


def row_findings(table: Table) -> Iterator[str]:
    if len(table.rows) > MAX_ROWS:
        yield f"has {len(table.rows)} rows; no table has more than {MAX_ROWS}"
    seen: set[int] = set()
    for row in table.rows:
        name = f'row 0x{row.code:04X} "{row.text}"'
        if row.code > 0xFFFF:
            yield f"{name}: the code does not fit 16 bits"
        if table.kind == "Bitfield" and row.code == 0:
            yield f"{name}: 0 is success and has no row"
        if row.code in seen:
            yield f"{name}: the code has a row already"
        seen.add(row.code)
        if row.text.rstrip().endswith(";"):
            yield f'{name}: the text ends in ";"; the separator is added when it is rendered'
        elif row.text != row.text.strip() or not row.text:
            yield f"{name}: the text is empty or has blanks at its ends"
        if not row.text.isprintable():
            yield f"{name}: the text holds characters that cannot be printed"


# -- the whole catalogue ------------------------------------------------------------------------------


def id_findings(catalogue: Catalogue, index: Index) -> Iterator[Finding]:
    """An id belongs to one command, except where the index itself lists it for several."""
    shared: dict[int, set[str]] = {}
    for entry in index.entries:
        shared.setdefault(entry.id, set()).add(entry.name)
    owners: dict[int, list[Command]] = {}
    for command in catalogue.commands():
        for owner in owners.get(command.id, []):
            if not {command.name, owner.name} <= shared.get(command.id, set()):
                text = f"id {command.id} belongs to {owner.name} ({owner.file})"
                yield Finding(command.file, text, command.name)
        owners.setdefault(command.id, []).append(command)


def index_findings(catalogue: Catalogue, index: Index, partial: bool) -> Iterator[Finding]:
    entries = {entry.name: entry for entry in index.entries}
    commands = {command.name: command for command in catalogue.commands()}
    for name, command in commands.items():
        entry = entries.get(name)
        if entry is None:
            if not command.overlay:
                yield Finding(command.file, f"is not in the control list {index.file}", name)
            continue
        if command.id != entry.id:
            yield Finding(command.file, f"has id {command.id}; the control list says {entry.id}", name)
        roles = {message.role for message in command.messages}
        for role in sorted(roles - set(entry.roles)):
            yield Finding(command.file, "does not exist in the control list", name, role)
        for role in sorted(set(entry.roles) - roles):
            yield Finding(command.file, "is in the control list but not defined", name, role)
    if partial:
        return
    for name, entry in entries.items():
        if name not in commands:
            yield Finding(index.file, f"is listed with id {entry.id} but defined nowhere", name)
    yield from total_findings(catalogue, index)


def total_findings(catalogue: Catalogue, index: Index) -> Iterator[Finding]:
    """The totals are stated on their own, so that a slip in the list itself is noticed too."""
    listed = {entry.name for entry in index.entries}
    known = [command for command in catalogue.commands() if command.name in listed]
    for what, expected in index.totals.items():
        found = len(known) if what == "commands" else sum(c.message(what) is not None for c in known)
        if found != expected:
            yield Finding(index.file, f"totals: {found} of kind {what} are defined, {expected} are expected")


def name_findings(catalogue: Catalogue) -> Iterator[Finding]:
    """Types, functions and constants share one namespace; each name has one owner."""
    owners: dict[str, str] = {}
    for command in catalogue.commands():
        for name, what in generated_names(command):
            if name in owners:
                text = f"{what} is named {name}, as one of {owners[name]} is"
                yield Finding(command.file, text, command.name)
            owners.setdefault(name, command.name)


def generated_names(command: Command) -> Iterator[tuple[str, str]]:
    yield command.constant, "its id constant"
    yield command.name, "its description"
    for message in command.messages:
        for record in message.record.tree():
            yield record.type, f"a record of its {message.role}"
        verb = "encode" if message.role == "request" else "decode"
        yield f"{verb}_{command.snake}_{message.role}", f"the coder of its {message.role}"
        yield f"{command.snake}_{message.role}_to_json", f"the renderer of its {message.role}"
    for table in command.tables:
        for suffix in ("codes", "string"):
            name = f"{command.snake}_{names.attribute(table.key)}_{suffix}"
            yield name, f"a function of its coded field {table.key}"
