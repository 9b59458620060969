"""The C++ of the catalogue. It only declares: structs and their functions for users, layouts and code
tables for the templates of `commands/`, and the definitions that join the two."""

from __future__ import annotations

import re
from collections.abc import Iterator

from . import names
from .model import (
    Blob,
    Catalogue,
    Command,
    Family,
    Field,
    List,
    Message,
    Record,
    Scalar,
    Table,
    Variant,
)

GENERATED = "// Generated from the command catalogue; changes belong there.\n"
CPP_TYPES = {
    "u8": "std::uint8_t",
    "u16": "std::uint16_t",
    "u32": "std::uint32_t",
    "u64": "std::uint64_t",
    "string": "std::string",
    "uuid": "std::string",
}
ARTICLES = {"request": "Request", "response": "Response", "notification": "Notification"}


def emit(catalogue: Catalogue) -> dict[str, str]:
    """Relative path -> text of every file."""
    files = {"include/vorlinkit/commands.hpp": all_header(catalogue)}
    for family in catalogue.families:
        files[f"include/vorlinkit/commands/{family.name}.hpp"] = header(family)
        files[f"commands/{family.name}.layout.hpp"] = layouts(family)
        files[f"commands/{family.name}.cpp"] = source(family)
    return files


def all_header(catalogue: Catalogue) -> str:
    includes = "".join(f"#include <vorlinkit/commands/{family.name}.hpp>\n" for family in catalogue.families)
    return f"{GENERATED}// Every command of the machine.\n#pragma once\n\n{includes}"


# -- the public header --------------------------------------------------------------------------------


def header(family: Family) -> str:
    about = "".join(comment("// ", text) for text in (family.title + ".", family.about) if text)
    body = "".join(command_declarations(command) for command in family.commands)
    return f"""{GENERATED}{about}#pragma once

#include <vorlinkit/Error.hpp>
#include <vorlinkit/commands/FieldCodedValues.hpp>
#include <vorlinkit/commands/PayloadMemory.hpp>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vorlinkit::commands {{

{body}}} // namespace vorlinkit::commands
"""


def command_declarations(command: Command) -> str:
    parts = [f"// -- {command.name} ({command.id})\n"]
    if command.about:
        parts.append(comment("// ", command.about))
    parts.append(f"inline constexpr std::uint16_t {command.constant} = {command.id};\n")
    for message in command.messages:
        parts += [struct(record, "") for record in message.record.nested()]
        parts.append(struct(message.record, message_comment(command, message)))
        parts.append("".join(text + ";\n" for text, _ in functions(command, message)))
    parts.append("".join(text + ";\n" for text, _ in table_functions(command)))
    parts.append(description(command))
    return "".join(parts) + "\n"


def description(command: Command) -> str:
    """What the template of typed calls needs to know of a command."""
    lines = [
        f"static constexpr std::uint16_t id = {command.constant};",
        f"static constexpr std::string_view name = {literal(command.name)};",
    ]
    for role, written in ARTICLES.items():
        message = command.message(role)
        lines.append(f"using {written} = {message.record.type if message else 'void'};")
    if command.message("request"):
        lines.append(f"static constexpr auto encode = encode_{command.snake}_request;")
    for role in ("response", "notification"):
        if command.message(role):
            coder = f"decode_{command.snake}_{role}"
            lines.append(f"static constexpr auto decode{ARTICLES[role]} = {coder};")
    if command.facts.subscribes:
        place = names.cpp_member(names.attribute(command.facts.subscribes))
        lines.append(f"static constexpr auto subscribing = &Request::{place};")
    body = "".join(f"  {line}\n" for line in lines)
    about = "/// The command, for vorlinkit::call() and vorlinkit::subscribe().\n"
    return f"{about}struct {command.name} {{\n{body}}};\n"


def message_comment(command: Command, message: Message) -> str:
    standing = message.standing
    text = f"{ARTICLES[message.role]} of {command.name}; its layout is {standing.name}"
    text += f" ({standing.why or standing.confirmed_by})" if standing.why or standing.confirmed_by else ""
    return text + "."


def struct(record: Record, about: str) -> str:
    members = "".join(member(record, field) for field in record.fields)
    return f"{comment('/// ', about) if about else ''}struct {record.type} {{\n{members}}};\n"


def member(record: Record, field: Field) -> str:
    note = f" ///< {field.note}" if field.note else ""
    name = names.cpp_member(field.attribute)
    match field:
        case Scalar():
            initial = "{}" if field.is_integer else ""
            return f"  {CPP_TYPES[field.kind]} {name}{initial};{note}\n"
        case List() | Blob():
            return f"  std::vector<{field.item.type}> {name};{note}\n"
        case Variant():
            held = ", ".join(alternative.record.type for alternative in field.alternatives)
            return f"  std::variant<{held}> {name};{note}\n"


def functions(command: Command, message: Message) -> Iterator[tuple[str, str]]:
    """Signature and body of what each message has."""
    name, role = message.record.type, message.role
    if role == "request":
        result = "std::expected<std::vector<std::byte>, Error>"
        yield f"{result} encode_{command.snake}_request(const {name}& request)", "encode(request)"
        yield (
            f"std::expected<void, Error> write_{command.snake}_request(const {name}& request, PayloadMemory& memory)",
            "write(request, memory)",
        )
    else:
        result = f"std::expected<{name}, Error>"
        yield (
            f"{result} decode_{command.snake}_{role}(std::span<const std::byte> payload)",
            f"decode<{name}>(payload)",
        )
    yield f"std::string {command.snake}_{role}_to_json(const {name}& {role})", f"toJson({role})"


def table_functions(command: Command) -> Iterator[tuple[str, str]]:
    for table in command.tables:
        stem = f"{command.snake}_{table.attribute}"
        rows = table_constant(command, table.attribute)
        yield f"FieldCodedValues {stem}_codes()", rows
        yield f"std::string {stem}_string(std::uint16_t value)", f"describe({rows}, value)"


# -- layouts ------------------------------------------------------------------------------------------


def layouts(family: Family) -> str:
    body = "".join(command_layouts(command) for command in family.commands)
    return f"""{GENERATED}// The fields of every record in wire order, and the tables of coded fields.
#pragma once

#include "Layout.hpp"

#include <vorlinkit/commands/{family.name}.hpp>

namespace vorlinkit::commands {{

{body}}} // namespace vorlinkit::commands
"""


def command_layouts(command: Command) -> str:
    parts = [code_table(command, table) for table in command.tables]
    for message in command.messages:
        parts += [layout(command, record) for record in message.record.tree()]
    return "".join(parts)


def code_table(command: Command, table: Table) -> str:
    name = table_constant(command, table.attribute)
    values = "{}"
    rows = ""
    if table.rows:
        values = f"{name}Rows"
        entries = ", ".join(f"{{0x{row.code:04X}, {literal(row.text)}}}" for row in table.rows)
        rows = f"inline constexpr FieldCodedValue {values}[] = {{{entries}}};\n"
    return f"{rows}inline constexpr FieldCodedValues {name}{{{values}, CodedValueKind::{table.kind}}};\n"


def table_constant(command: Command, attribute: str) -> str:
    """Our own name for the table of a coded field."""
    return names.camel_back(f"{command.snake}_{attribute}_table")


def layout(command: Command, record: Record) -> str:
    # A record that is not at hand by name is found by its type among the enclosing ones.
    keys = ", ".join(literal("" if isinstance(field, Variant) else field.key) for field in record.fields)
    fields = ",\n    ".join(field_layout(command, record, field) for field in record.fields)
    return f"""template <> struct Layout<{record.type}> {{
  using R = {record.type};
  using Fields = FieldList<
    {fields}>;
  static constexpr std::string_view keys[] = {{{keys}}};
}};
"""


def field_layout(command: Command, record: Record, field: Field) -> str:
    place = "&R::" + names.cpp_member(field.attribute)
    match field:
        case Scalar(kind="string"):
            return f"Text<{place}>"
        case Scalar(kind="uuid"):
            return f"Uuid<{place}>"
        case Scalar():
            if command.table(field.key):
                return f"Coded<{place}, {table_constant(command, field.attribute)}>"
            return f"Number<{place}>"
        case List() | Blob():
            return f"Items<{place}, &R::{names.cpp_member(names.attribute(field.count))}>"
        case Variant():
            whens = ", ".join(f"When<{', '.join(map(str, each.when))}>" for each in field.alternatives)
            if field.inside:
                return f"LeadingChoice<{place}, {whens}>"
            holder = discriminator_holder(command, record, field)
            return f"Choice<{place}, &{holder}::{names.cpp_member(names.attribute(field.on))}, {whens}>"


def discriminator_holder(command: Command, record: Record, variant: Variant) -> str:
    """The type of the record in which the discriminator of a variant stands."""
    assert variant.levels is not None
    for message in command.messages:
        chain = chain_to(message.record, record)
        if chain:
            return chain[variant.levels].type
    raise AssertionError(f"{record.type} is not part of {command.name}")


def chain_to(top: Record, wanted: Record) -> list[Record]:
    """The records from `wanted` outward to `top`; empty when `wanted` is not in it."""
    if top is wanted:
        return [top]
    for field in top.fields:
        match field:
            case List() | Blob():
                below = [field.item]
            case Variant():
                below = [alternative.record for alternative in field.alternatives]
            case _:
                continue
        for each in below:
            if chain := chain_to(each, wanted):
                return [*chain, top]
    return []


# -- definitions --------------------------------------------------------------------------------------


def source(family: Family) -> str:
    body = "".join(command_definitions(command) for command in family.commands)
    return f"""{GENERATED}
#include "commands/{family.name}.layout.hpp"

#include "Descriptions.hpp"
#include "JsonRenderer.hpp"
#include "PayloadReader.hpp"
#include "PayloadWriter.hpp"

namespace vorlinkit::commands {{

{body}
}} // namespace vorlinkit::commands
"""


def command_definitions(command: Command) -> str:
    defined = [pair for message in command.messages for pair in functions(command, message)]
    defined += table_functions(command)
    return "".join(f"{signature} {{ return {body}; }}\n" for signature, body in defined)


# -- text ---------------------------------------------------------------------------------------------


def literal(text: str) -> str:
    """A C++ string literal; source files are UTF-8, and so are the texts of the machine."""
    escaped = text.replace("\\", "\\\\").replace('"', '\\"')
    return '"' + re.sub(r"(?<=\?)\?", r"\\?", escaped) + '"'  # two in a row may begin a trigraph


def comment(prefix: str, text: str) -> str:
    return "".join(f"{prefix}{line}\n" for line in text.splitlines())
