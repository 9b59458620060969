"""The extension module's record classes and their functions once more, in pure Python, by the same names.

For where the extension does not load. Each is made when it is first asked for, from the catalogue:
``record_classes.GetMotorPositionResponse``, ``decode_get_motor_position_response``,
``get_motor_position_command_error_codes``, ``GET_MOTOR_POSITION_COMMAND_ID`` and so on.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence
from enum import IntEnum
from functools import partial
from typing import Any, NamedTuple

from vorlinkit.catalogue import (
    NUMBER_WIDTHS,
    BlobField,
    CodedValue,
    Command,
    Field,
    ListField,
    Message,
    ScalarField,
    VariantField,
)
from vorlinkit.wire import coder, render
from vorlinkit.wire import records as wire

from .layouts import Layout, bytes_attribute, catalogue, layouts
from .once import once
from .record import Attribute, Blob, BlobItems, Items, Number, OneOf, Record, Text


class CodedValueKind(IntEnum):
    Enum = 0
    Bitfield = 1


class FieldCodedValue(NamedTuple):
    code: int
    description: str


class FieldCodedValues(NamedTuple):
    values: tuple[FieldCodedValue, ...]
    kind: CodedValueKind


def __getattr__(name: str) -> Any:
    made = record_class(name) if name in layouts() else _functions().get(name)
    if made is None:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    globals()[name] = made
    return made


def __dir__() -> list[str]:
    return sorted({*globals(), *layouts(), *_functions()})


@once
def record_class(name: str) -> type[Record]:
    """The class of a record type of the catalogue."""
    layout = layouts()[name]
    attributes = {each.name: each for field in layout.fields for each in _attributes(layout, field)}
    body = {
        "__slots__": (),
        "__module__": __name__,
        "__doc__": f"Record of {layout.command.name}, command {layout.command.id}.",
        "_layout": layout,
        "_attributes": attributes,
        **attributes,
    }
    return type(name, (Record,), body)


def _attributes(layout: Layout, field: Field) -> Iterator[Attribute]:
    if isinstance(field, ListField):
        yield Items(field.attribute, partial(record_class, field.type))
    elif isinstance(field, BlobField):
        name = bytes_attribute(layout, field)
        yield BlobItems(field.attribute, partial(record_class, field.type), field.item_attribute, name)
        yield Blob(name)
    elif isinstance(field, VariantField):
        types = [one.type for one in field.alternatives]
        yield OneOf(field.attribute, once(lambda: tuple(map(record_class, types))))
    elif field.kind in NUMBER_WIDTHS:
        yield Number(field.attribute, NUMBER_WIDTHS[field.kind])
    else:
        yield Text(field.attribute)


# -- records as the wire has them ---------------------------------------------------------------------


def to_wire(record: Record) -> wire.Record:
    """A record by the keys of the protocol, as the coder and the renderer take it."""
    layout, held = record._layout, record._held
    found: wire.Record = {}
    for field in layout.fields:
        if isinstance(field, BlobField):
            found[field.key] = held[bytes_attribute(layout, field)]
        elif isinstance(field, ListField):
            found[field.key] = [to_wire(item) for item in held[field.attribute]]
        elif isinstance(field, VariantField):
            inner: Record = held[field.attribute]
            name = next(one.name for one in field.alternatives if one.type == type(inner).__name__)
            found[field.attribute] = wire.Variant(name, to_wire(inner))
        else:
            found[field.key] = held[field.attribute]
    return found


def from_wire(name: str, record: wire.Record) -> Record:
    """The record of a type that was read from a payload."""
    layout = layouts()[name]
    held: dict[str, Any] = {}
    for field in layout.fields:
        value = record[field.attribute if isinstance(field, VariantField) else field.key]
        if isinstance(field, BlobField):
            held[bytes_attribute(layout, field)] = value
        elif isinstance(field, ListField):
            assert isinstance(value, list)
            held[field.attribute] = [from_wire(field.type, item) for item in value]
        elif isinstance(value, wire.Variant):
            assert isinstance(field, VariantField)
            kind = next(one.type for one in field.alternatives if one.name == value.name)
            held[field.attribute] = from_wire(kind, value.fields)
        else:
            held[field.attribute] = value
    return record_class(name)._of(held)


# -- functions ----------------------------------------------------------------------------------------


@once
def _functions() -> dict[str, Any]:
    """Every function and command id, by name."""
    return {name: made for command in catalogue().commands for name, made in _block(command)}


def _block(command: Command) -> Iterator[tuple[str, Any]]:
    snake = command.snake
    yield f"{snake.upper()}_COMMAND_ID", command.id
    for kind, message in command.messages.items():
        if kind == "request":
            yield f"encode_{snake}_request", partial(_encode, message)
        else:
            yield f"decode_{snake}_{kind}", partial(_decode, message)
        yield f"{snake}_{kind}_to_json", partial(_render, command, message)
    if command.errors is not None:
        yield f"{snake}_command_error_codes", partial(_codes, command.errors, CodedValueKind.Bitfield)
        yield f"{snake}_command_error_string", partial(_describe, render.describe_bits, command.errors)
    for key, rows in command.coded.items():
        stem = f"{snake}_{_attribute(command, key)}"
        yield f"{stem}_codes", partial(_codes, rows, CodedValueKind.Enum)
        yield f"{stem}_string", partial(_describe, render.describe_enum, rows)


def _attribute(command: Command, key: str) -> str:
    """The attribute of a key, which some record of the command has."""
    fields = (field for layout in layouts().values() if layout.command is command for field in layout.fields)
    return next(field.attribute for field in fields if isinstance(field, ScalarField) and field.key == key)


def _own(message: Message, record: Any) -> Record:
    if not isinstance(record, record_class(message.type)):
        raise TypeError(f"a {message.type} is needed, not {record!r:.200}")
    return record


def _encode(message: Message, request: Any) -> bytes:
    try:
        return coder.encode(message.fields, to_wire(_own(message, request)))
    except (coder.PayloadError, ValueError) as error:
        raise RuntimeError(f"Encode failed: {error}") from error


def _decode(message: Message, data: Any) -> Record:
    if not isinstance(data, bytes):
        raise TypeError(f"the payload of a {message.type} is bytes, not {data!r:.200}")
    try:
        record, _ = coder.decode(message.fields, data)
    except coder.PayloadError as error:
        raise RuntimeError(f"Decode failed: {error}") from error
    return from_wire(message.type, record)


def _render(command: Command, message: Message, record: Any) -> str:
    return render.to_json(command, message.fields, to_wire(_own(message, record)))


def _codes(rows: Sequence[CodedValue], kind: CodedValueKind) -> FieldCodedValues:
    return FieldCodedValues(tuple(FieldCodedValue(row.code, row.text) for row in rows), kind)


def _describe(text: Callable[[Sequence[CodedValue], int], str], rows: Sequence[CodedValue], code: Any) -> str:
    try:
        return text(rows, Number("code", 2).taken(code))
    except ValueError:
        raise TypeError(f"a code is a whole number from 0 to 65535, not {code!r}") from None
