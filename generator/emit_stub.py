"""The typing stub of the extension module: the hand-written part for the session, then the commands."""

from __future__ import annotations

import keyword
from collections.abc import Iterator

from . import emit_bindings
from .facts import in_words
from .model import Blob, Catalogue, Command, Field, List, Message, Record, Scalar, Variant


def emit(catalogue: Catalogue, session_part: str) -> str:
    blocks = [block(command) for family in catalogue.families for command in family.commands]
    return session_part.rstrip("\n") + "\n\n" + "\n".join(blocks)


def block(command: Command) -> str:
    about = docstring(" ".join((f"Id of {command.name}.", *in_words(command))), "")
    parts = [f"# -- {command.name} ({command.id})\n", f"{command.constant}: int\n", about]
    for message in command.messages:
        parts += [record_class(command, message, record) for record in message.record.tree()]
        parts += [function(*each) for each in emit_bindings.message_functions(command, message)]
    parts += [function(*each) for each in emit_bindings.coded_functions(command)]
    return "".join(parts)


def record_class(command: Command, message: Message, record: Record) -> str:
    about = docstring(emit_bindings.record_doc(command, message, record), "    ")
    members = "".join(
        attribute(*each) for field in record.fields for each in members_of(command, record, field)
    )
    return f"\nclass {record.type}:\n{about}\n{constructor(record)}{VALUE_METHODS}{members}\n"


# Equal content of one class; what can be written has no hash. Copies own what they hold.
VALUE_METHODS = """\
    def __eq__(self, other: object) -> bool: ...
    __hash__: ClassVar[None]  # type: ignore[assignment]
    def __copy__(self) -> Self: ...
    def __deepcopy__(self, memo: dict[int, object], /) -> Self: ...
"""


def constructor(record: Record) -> str:
    taken = [each for field in record.fields for each in keywords(record, field)]
    listed = "".join(
        f", {name}: {kind} = {default}" for name, kind, default in taken if not keyword.iskeyword(name)
    )
    return f"    def __init__(self{', *' if listed else ''}{listed}) -> None: ...\n"


def keywords(record: Record, field: Field) -> Iterator[tuple[str, str, str]]:
    """Name, type and default of what the constructor takes for a field."""
    name, kind = field.attribute, attribute_type(field)
    match field:
        case Scalar():
            yield name, kind, "0" if field.is_integer else '""'
        case List() | Blob():
            yield name, f"Sequence[{field.item.type}]", "()"
            if isinstance(field, Blob):
                yield emit_bindings.bytes_attribute(record, field), "bytes", 'b""'
        case Variant():
            yield name, kind, "..."


def members_of(command: Command, record: Record, field: Field) -> Iterator[tuple[str, str, str]]:
    for name, _, about in emit_bindings.attributes(command, record, field):
        yield name, "bytes" if name != field.attribute else attribute_type(field), about


def attribute_type(field: Field) -> str:
    match field:
        case Scalar():
            return "int" if field.is_integer else "str"
        case List() | Blob():
            return f"_ListOf[{field.item.type}]"
        case Variant():
            return " | ".join(each.record.type for each in field.alternatives)


def attribute(name: str, python_type: str, about: str) -> str:
    if keyword.iskeyword(name):
        return f"    # {name}: {python_type}, reached by getattr() and setattr()\n"
    return f"    {name}: {python_type}\n{docstring(about, '    ')}"


def function(_kind: str, name: str, signature: str, about: str, _record: str, _act: str) -> str:
    plain = signature.replace(emit_bindings.MODULE + ".", "")
    return f"\ndef {name}{plain}:\n{docstring(about, '    ')}"


def docstring(text: str, indent: str) -> str:
    escaped = text.replace("\\", "\\\\").replace('"""', '\\"\\"\\"')
    escaped = escaped[:-1] + '\\"' if escaped.endswith('"') else escaped
    lines = [line.rstrip() for line in escaped.splitlines()]
    tail = f"\n{indent}" if len(lines) > 1 else ""
    return f'{indent}"""' + f"\n{indent}".join(lines).replace(f"\n{indent}\n", "\n\n") + f'{tail}"""\n'
