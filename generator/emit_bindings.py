"""The blocks of the extension module: constant tables of what each command gives to Python, in the order in
which it is registered. The functions that act on the tables are hand-written, in `python/extension/records/`."""

from __future__ import annotations

from collections.abc import Iterator

from . import emit_cpp, names
from .emit_cpp import CPP_TYPES, GENERATED
from .model import (
    INTEGER_BITS,
    Blob,
    Catalogue,
    Command,
    Family,
    Field,
    List,
    Message,
    Record,
    Scalar,
    Variant,
)

MODULE = "vorlinkit_python"


def emit(catalogue: Catalogue) -> dict[str, str]:
    """Relative path -> text of every file."""
    files = {"python/commandBlocks.cpp": families(catalogue)}
    for family in catalogue.families:
        files[f"python/{family.name}.blocks.cpp"] = blocks(family)
    return files


def families(catalogue: Catalogue) -> str:
    found = [family.name for family in catalogue.families]
    declared = "".join(f"extern const std::span<BlockEntry> {name}_blocks;\n" for name in found)
    listed = ", ".join(f"{name}_blocks" for name in found)
    return f"""{GENERATED}#include "records/CommandBlock.hpp"

#include <vector>

namespace vorlinkit::python {{

{declared}
std::vector<std::span<BlockEntry>> commandBlocks() {{ return {{{listed}}}; }}

}} // namespace vorlinkit::python
"""


def blocks(family: Family) -> str:
    tables = "".join(command_tables(command) for command in family.commands)
    entries = [f"    {entry},\n" for command in family.commands for entry in command_entries(command)]
    return f"""{GENERATED}#include "records/CommandBlock.hpp"

#include <vorlinkit/commands/{family.name}.hpp>

#include <array>
#include <cstddef>

namespace vorlinkit::python {{

namespace c = commands;

namespace {{

{tables}
constinit std::array<BlockEntry, {len(entries)}> {family.name}_entries{{{{
{"".join(entries)}}}}};

}} // namespace

extern const std::span<BlockEntry> {family.name}_blocks;
const std::span<BlockEntry> {family.name}_blocks({family.name}_entries);

}} // namespace vorlinkit::python
"""


def command_tables(command: Command) -> str:
    parts = [f"// -- {command.name} ({command.id})\n"]
    for message in command.messages:
        parts += [record_table(command, message, record) for record in message.record.tree()]
        parts += [function_table(*each) for each in message_functions(command, message)]
    parts += [function_table(*each) for each in coded_functions(command)]
    return "".join(parts) + "\n"


def command_entries(command: Command) -> Iterator[str]:
    yield f"commandId({literal(command.constant)}, c::{command.constant})"
    for message in command.messages:
        for record in message.record.tree():
            yield f"recordClass({record.type})"
        for _, name, *_ in message_functions(command, message):
            yield f"moduleFunction<{name}>()"
    for _, name, *_ in coded_functions(command):
        yield f"moduleFunction<{name}>()"


# -- records ------------------------------------------------------------------------------------------


def record_table(command: Command, message: Message, record: Record) -> str:
    name = record.type
    operations = "".join(field_operations(record, field) for field in record.fields)
    rows = "".join(f"    {row},\n" for field in record.fields for row in field_rows(command, record, field))
    fields = f"constexpr Field {name}_fields[] = {{\n{rows}}};\n" if rows else ""
    attributes = f"attributesOf({name}_fields)" if rows else "noAttributes()"
    about = literal(record_doc(command, message, record))
    shown = literal(f"{MODULE}.{name}")
    return (
        f"{operations}{fields}constinit auto {name}_attributes = {attributes};\n"
        f"constinit RecordType {name} = record<c::{name}>({shown}, {name}_attributes.data(),\n    {about});\n"
    )


def field_operations(record: Record, field: Field) -> str:
    match field:
        case List(item=item):
            return f"constexpr ListOperations {item.type}_list = listOf<c::{item.type}>({item.type});\n"
        case Blob(item=item):
            return f"constexpr BlobOperations {item.type}_list = blobOf<c::{item.type}>({item.type});\n"
        case Variant():
            stem = f"{record.type}_{field.attribute}_variant"
            held = ", ".join("&" + each.record.type for each in field.alternatives)
            member = f"c::{record.type}::{names.cpp_member(field.attribute)}"
            return (
                f"constexpr RecordType* {stem}_alternatives[] = {{{held}}};\n"
                f"constexpr VariantOperations {stem} = variantOf<decltype({member})>({stem}_alternatives);\n"
            )
    return ""


def field_rows(command: Command, record: Record, field: Field) -> Iterator[str]:
    attribute = field.attribute
    place = f"offsetof(c::{record.type}, {names.cpp_member(attribute)})"
    for name, python_type, about in attributes(command, record, field):
        doc = literal(f"(self: {MODULE}.{record.type}) -> {python_type}\n\n{about}")
        match field:
            case Scalar():
                yield f"field<{CPP_TYPES[field.kind]}>({literal(name)}, {place}, {doc})"
            case Blob() if name != attribute:
                yield f"blob({literal(name)}, {place}, {field.item.type}_list, {doc})"
            case List() | Blob():
                yield f"list({literal(name)}, {place}, {field.item.type}_list, {doc})"
            case Variant():
                yield f"variant({literal(name)}, {place}, {record.type}_{attribute}_variant, {doc})"


def attributes(command: Command, record: Record, field: Field) -> Iterator[tuple[str, str, str]]:
    """Name, type as the binding library writes it, and meaning of what a field becomes in Python."""
    yield field.attribute, python_type(field), field_doc(command, field)
    if isinstance(field, Blob):
        yield bytes_attribute(record, field), "bytes", bytes_doc(field)


def python_type(field: Field) -> str:
    match field:
        case Scalar():
            return "int" if field.is_integer else "str"
        case List() | Blob():
            return f"List[{MODULE}.{field.item.type}]"
        case Variant():
            held = ", ".join(f"{MODULE}.{each.record.type}" for each in field.alternatives)
            return f"Union[{held}]"


def bytes_attribute(record: Record, blob: Blob) -> str:
    """A blob's bytes at once, under a name that no field of the record has."""
    taken = {field.attribute for field in record.fields}
    name = blob.attribute + "_bytes"
    while name in taken:
        name += "_"
    return name


# -- functions ----------------------------------------------------------------------------------------


def function_table(kind: str, name: str, signature: str, about: str, record: str, act: str) -> str:
    doc = literal(f"{name}{signature}\n\n{about}")
    return f"constexpr Function<{kind}> {name}{{{literal(name)}, {doc},\n    {record}, {act}}};\n"


def message_functions(command: Command, message: Message) -> Iterator[tuple[str, str, str, str, str, str]]:
    """Kind, name, signature, meaning, record and C++ function of each function of a message."""
    role, record = message.role, message.record.type
    if role == "request":
        name = f"encode_{command.snake}_request"
        signature, about = f"(request: {MODULE}.{record}) -> bytes", encode_doc(command)
        yield (
            "Encode",
            name,
            signature,
            about,
            "&" + record,
            f"writeRecord<c::write_{command.snake}_request, c::{record}>",
        )
    else:
        name = f"decode_{command.snake}_{role}"
        signature, about = f"(data: bytes) -> {MODULE}.{record}", decode_doc(command, message)
        yield "Decode", name, signature, about, "&" + record, f"decodeRecord<c::{name}, c::{record}>"
    name = f"{command.snake}_{role}_to_json"
    signature, about = f"({role}: {MODULE}.{record}) -> str", RENDER_DOC
    yield "Render", name, signature, about, "&" + record, f"renderRecord<c::{name}, c::{record}>"


def coded_functions(command: Command) -> Iterator[tuple[str, str, str, str, str, str]]:
    for table in command.tables:
        stem = f"{command.snake}_{table.attribute}"
        name = f"{stem}_string"
        yield "DescribeCode", name, "(code: int) -> str", describe_doc(table.key), "nullptr", f"c::{name}"
        name = f"{stem}_codes"
        signature, about = f"() -> {MODULE}.FieldCodedValues", codes_doc(command, table.key)
        yield "ListCodes", name, signature, about, "nullptr", f"c::{name}"


def literal(text: str) -> str:
    """A C++ string literal; documentation has lines."""
    return emit_cpp.literal(text).replace("\n", "\\n")


# -- documentation, for the module and its stub --------------------------------------------------------

RENDER_DOC = "One line of JSON text, fields in the order of the payload."


def record_doc(command: Command, message: Message, record: Record) -> str:
    if record is not message.record:
        return f"Part of {message.record.type}."
    standing = message.standing
    why = standing.confirmed_by or standing.why
    about = f" {command.about}" if command.about else ""
    layout = f"Its layout is {standing.name}{f' ({why})' if why else ''}."
    return f"{message.role.capitalize()} of {command.name}, command {command.id}.{about}\n\n{layout}"


def field_doc(command: Command, field: Field) -> str:
    note = f": {field.note}" if field.note else ""
    match field:
        case Scalar() if field.is_integer:
            described = ""
            if command.table(field.key):
                described = f"; {command.snake}_{field.attribute}_string() describes it"
            return f"{field.key}, 0 to {2 ** INTEGER_BITS[field.kind] - 1}{described}{note}"
        case Scalar():
            return f"{field.key}{', a UUID as text' if field.kind == 'uuid' else ''}{note}"
        case List():
            return f"{field.key}; its count is {names.attribute(field.count)}{note}"
        case Blob():
            return f"{field.key}, one object per byte; its count is {names.attribute(field.count)}{note}"
        case Variant():
            return f"Chosen by {field.on}{note}"


def bytes_doc(blob: Blob) -> str:
    return (
        f"{blob.key} at once, as bytes; takes any buffer of bytes. Its count is {names.attribute(blob.count)}"
    )


def encode_doc(command: Command) -> str:
    return f"Payload bytes of the request, to be sent with {command.constant}. Raises RuntimeError."


def decode_doc(command: Command, message: Message) -> str:
    return f"Reads the payload of a {message.role} to {command.constant}. Raises RuntimeError if it is malformed."


def describe_doc(key: str) -> str:
    return f"What a value of {key} means, in the machine's words."


def codes_doc(command: Command, key: str) -> str:
    return f"The known codes of {key} of {command.name}."
