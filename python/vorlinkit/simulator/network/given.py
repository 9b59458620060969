"""Values that a line of control gives, checked against the layout of the message that shall carry them."""

from __future__ import annotations

import json
import re
from collections.abc import Mapping, Sequence
from typing import Any, Final, NoReturn

from vorlinkit.catalogue import (
    NUMBER_WIDTHS,
    BlobField,
    Command,
    Field,
    ListField,
    ScalarField,
    VariantField,
)
from vorlinkit.wire.records import Record, Value, Variant

from ..faults.misbehaviour import ScenarioError
from ..faults.scenario import near, plain_value
from ..state.machine import Machine

_UUID: Final = re.compile(r"[0-9A-Fa-f]{8}(-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}")


def assignments(text: str) -> dict[str, Any]:
    """Words of ``key=value``. A value that begins with a quotation mark, [ or { is JSON; any other ends at the next
    space and is held as the text that it is.
    """
    found: dict[str, Any] = {}
    rest = text.strip()
    while rest:
        match = re.match(r"([^\s=]+)=", rest)
        if match is None:
            raise ScenarioError(f"{rest.split()[0]!r} is no FIELD=VALUE")
        rest = rest[match.end() :]
        if rest[:1] in ('"', "[", "{"):
            try:
                found[match[1]], end = json.JSONDecoder().raw_decode(rest)
            except (ValueError, RecursionError) as error:
                raise ScenarioError(f"the value of {match[1]} is no JSON: {error}") from None
            if not re.match(r"\s|$", rest[end:]):
                raise ScenarioError(f"a space has to follow the value of {match[1]}")
            rest = rest[end:].lstrip()
        else:
            found[match[1]], _, rest = rest.partition(" ")
            rest = rest.lstrip()
    return found


def command_named(name: str, machine: Machine) -> Command:
    """The command of this name, in either spelling, or with this id, as the machine answers it."""
    found = machine.command_with_id(int(name)) if name.isdecimal() and len(name) < 6 else None
    try:
        found = found or machine.catalogue.named(name)
    except KeyError:
        hint = near(name, (one.name for one in machine.catalogue.commands)) or "; give its name or its id"
        raise ScenarioError(f"there is no command {name!r}{hint}") from None
    answers = machine.command_with_id(found.id)
    if answers is not None and answers is not found:
        raise ScenarioError(
            f"{name} is not answered here, but {answers.name}; start with --prefer {found.name}"
        )
    return found


def state(command: Command, given: Mapping[str, Any]) -> tuple[Record, Record]:
    """Which object is meant (fields of the request), and what its answers shall hold (fields of the response and of
    the notification).
    """
    asked = _own(command.request.fields if command.request is not None else ())
    asked = {
        key: one
        for key, one in asked.items()
        if isinstance(one, ScalarField) and one.key != command.subscribes
    }
    shown = [one.fields for one in (command.response, command.notification) if one is not None]
    address = record(
        command.name, list(asked.values()), {key: given[key] for key in given if key in asked}, {}
    )
    values = {key: value for key, value in given.items() if key not in asked}
    for key in values:
        if not any(_takes(fields, key) for fields in shown):
            _refuse(command.name, key, [*asked.values(), *(one for fields in shown for one in fields)])
    if not values:
        keys = dict.fromkeys(key for fields in shown for key in _keys(fields) if key not in asked)
        raise ScenarioError(
            f"say what {command.name} shall answer with: {', '.join(keys)}"
            if keys
            else f"{command.name} answers with nothing that could be set"
        )
    held: Record = {}
    for fields in shown:
        taken = {key: value for key, value in values.items() if _takes(fields, key)}
        held.update(record(command.name, fields, taken, address))
    return address, held


def record(where: str, fields: Sequence[Field], given: Mapping[str, Any], around: Record) -> Record:
    """The fields that are given, checked. ``around`` holds discriminators that stand further out."""
    own = _own(fields)
    made: Record = {
        own[key].key: _value(own[key], value, around) for key, value in given.items() if key in own
    }
    left = {key: value for key, value in given.items() if key not in own}
    for field in fields:
        if left and isinstance(field, VariantField):
            made[field.attribute] = _variant(where, field, left, {**around, **made})
            left = {}
    for key in left:
        _refuse(where, key, fields)
    return made


def _value(field: ScalarField | ListField | BlobField, value: Any, around: Record) -> Value:
    if isinstance(field, ScalarField):
        return _scalar(field, value)
    if isinstance(field, BlobField):
        return _bytes(field, value)
    if not isinstance(value, list) or not all(isinstance(one, dict) for one in value):
        entry = ", ".join(f'"{key}": ...' for key in _keys(field.items))
        raise ScenarioError(f"{field.key} is a list of entries as JSON, [{{{entry}}}], not {value!r}")
    return [
        record(f"entry {at + 1} of {field.key}", field.items, one, around) for at, one in enumerate(value)
    ]


def _scalar(field: ScalarField, value: Any) -> Value:
    if field.kind == "string":
        if not isinstance(value, str) or "\0" in value:
            raise ScenarioError(f"{field.key} is a text without 0 bytes, not {value!r}")
        return value
    if field.kind == "uuid":
        if not isinstance(value, str) or not _UUID.fullmatch(value):
            raise ScenarioError(f"{field.key} is a uuid, 8-4-4-4-12 hexadecimal digits, not {value!r}")
        return value.upper()
    most = (1 << 8 * NUMBER_WIDTHS[field.kind]) - 1
    number = plain_value(value) if isinstance(value, str) else value
    if not isinstance(number, int) or not 0 <= number <= most:
        raise ScenarioError(f"{field.key} is a whole number from 0 to {most}, not {value!r}")
    return int(number)


def _bytes(field: BlobField, value: Any) -> bytes:
    try:
        if isinstance(value, str) and value.startswith("hex:"):
            return bytes.fromhex(value.removeprefix("hex:"))
        if isinstance(value, list):
            return bytes(value)
    except (ValueError, TypeError):
        pass
    raise ScenarioError(f"{field.key} is hex:DIGITS or a list of numbers from 0 to 255, not {value!r}")


def _variant(where: str, field: VariantField, given: Mapping[str, Any], around: Record) -> Variant:
    """The alternative that the discriminator names, or else the first that has all these fields."""
    wanted = given.get(field.on, around.get(field.on))
    for one in field.alternatives:
        fits = all(_takes(one.fields, key) for key in given)
        if fits if wanted is None else str(wanted) in map(str, one.when):
            return Variant(one.name, record(where, one.fields, given, around))
    if wanted is not None:
        known = ", ".join(str(when) for one in field.alternatives for when in one.when)
        raise ScenarioError(f"{field.on} is one of {known}, not {wanted!r}")
    _refuse(
        where, next(iter(given)), [one for alternative in field.alternatives for one in alternative.fields]
    )


def _own(fields: Sequence[Field]) -> dict[str, ScalarField | ListField | BlobField]:
    """The fields of a record that can be given, by key and by attribute name: all but counts and variants."""
    counts = {one.count for one in fields if isinstance(one, (ListField, BlobField))}
    given = [one for one in fields if not isinstance(one, VariantField) and one.key not in counts]
    return {one.attribute: one for one in given} | {one.key: one for one in given}


def _takes(fields: Sequence[Field], key: str) -> bool:
    variants = [one for field in fields if isinstance(field, VariantField) for one in field.alternatives]
    return key in _own(fields) or any(_takes(one.fields, key) for one in variants)


def _keys(fields: Sequence[Field]) -> list[str]:
    """The keys that can be given, alternatives included, in the order of the layout."""
    variants = [one for field in fields if isinstance(field, VariantField) for one in field.alternatives]
    own = dict.fromkeys(one.key for one in _own(fields).values())
    return list(own | dict.fromkeys(key for one in variants for key in _keys(one.fields)))


def _refuse(where: str, key: str, fields: Sequence[Field]) -> NoReturn:
    """Raises ScenarioError for a field that cannot be given."""
    for field in fields:
        if isinstance(field, (ListField, BlobField)) and field.count == key:
            raise ScenarioError(f"{key} follows from {field.key}; set that")
    known = _keys(fields)
    hint = near(key, known) or f"; it has {', '.join(known)}"
    raise ScenarioError(f"{where} has no field {key!r}{hint}")
