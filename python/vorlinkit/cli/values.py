"""FIELD=VALUE words, and hexadecimal digits, as the values of a call.

What a value may be is checked by the client when the request is encoded; here only texts become numbers, bytes and
lists.
"""

from __future__ import annotations

import json
import re
import sys
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from typing import Any

from vorlinkit.catalogue import BlobField, Command, Field, ListField, ScalarField, VariantField
from vorlinkit.client.layouts import Layout, layouts
from vorlinkit.client.records import ALTERNATIVE

from .exits import UsageError
from .hints import folded, hint


def call_values(command: Command, words: Sequence[str], method: Callable[..., Any]) -> dict[str, Any]:
    """The keyword arguments for a generated method of a command, from FIELD=VALUE words. Fields go by either spelling.
    Raises UsageError for unknown, repeated and missing ones."""
    parameters, optional = _parameters(method)
    given = {field.attribute: field for field in _given(command) if _parameter(field, parameters)}
    by_fold = {folded(name): field for name, field in given.items()}
    found: dict[str, Any] = {}
    for word in words:
        name, equals, text = word.partition("=")
        if not equals:
            raise UsageError(f"{word!r} is no FIELD=VALUE.{_takes(command, given)}")
        field = by_fold.get(folded(name))
        if field is None:
            raise UsageError(_unknown(command, name, given))
        parameter = _parameter(field, parameters)
        if parameter in found:
            raise UsageError(f"{field.attribute} is given twice.")
        found[parameter] = _value(command, field, text)
    needed = {name: field for name, field in given.items() if _parameter(field, parameters) not in optional}
    missing = [name for name, field in needed.items() if _parameter(field, parameters) not in found]
    if missing:
        raise UsageError(f"{command.name} needs {', '.join(missing)} as well.{_takes(command, given)}")
    return found


def _parameters(method: Callable[..., Any]) -> tuple[frozenset[str], frozenset[str]]:
    """The names of a method's parameters, and of those that may be left out. As `inspect.signature` tells, which takes
    several milliseconds to load."""
    code, by_place = method.__code__, _by_place(method)
    names = code.co_varnames[: code.co_argcount + code.co_kwonlyargcount]
    with_default = by_place[len(by_place) - len(method.__defaults__ or ()) :]
    return frozenset(names), frozenset((*with_default, *(method.__kwdefaults__ or ())))


def _by_place(method: Callable[..., Any]) -> tuple[str, ...]:
    return method.__code__.co_varnames[: method.__code__.co_argcount]


def _parameter(field: Field, parameters: frozenset[str]) -> str:
    """A field's parameter: called like it, or with an underscore where Python has taken the name; "" if it has none."""
    names = (field.attribute + "_", field.attribute)
    return next((name for name in names if name in parameters), "")


def hex_bytes(text: str, what: str) -> bytes:
    """Bytes from hexadecimal digits, which may be parted by blanks, colons or dashes, or begin with 0x."""
    digits = re.sub(r"0[xX]|[\s:-]", "", text)
    try:
        return bytes.fromhex(digits)
    except ValueError:
        bad = re.sub("[0-9A-Fa-f]", "", digits)
        why = f"{bad[0]!r} is none" if bad else f"{len(digits)} digits are no whole bytes"
        raise UsageError(f"{what}: hexadecimal digits are needed; {why}.") from None


def _given(command: Command) -> tuple[Field, ...]:
    return layouts()[command.request.type].given if command.request else ()


def _takes(command: Command, given: Mapping[str, Field]) -> str:
    if not given:
        return f" {command.name} takes no fields."
    return f" It takes {', '.join(f'{name} ({_form(field)})' for name, field in given.items())}."


def _form(field: Field) -> str:
    if isinstance(field, ScalarField):
        return "text" if field.kind in ("string", "uuid") else field.kind
    return "hexadecimal digits or @file" if isinstance(field, BlobField) else "JSON"


def _unknown(command: Command, name: str, given: Mapping[str, Field]) -> str:
    for key, counted in layouts()[command.request.type].counts.items() if command.request else ():
        if folded(key) == folded(name):
            return f"{name} follows from {counted.attribute}; leave it out."
    near = hint(name, given)
    return f"{command.name} has no field {name!r}.{near or _takes(command, given)}"


def _value(command: Command, field: Field, text: str) -> Any:
    name = field.attribute
    if isinstance(field, ScalarField):
        return text if field.kind in ("string", "uuid") else _number(command, field, text)
    if isinstance(field, BlobField):
        return _file(text[1:], name) if text.startswith("@") else hex_bytes(text, name)
    try:
        value = json.loads(text)
    except ValueError as error:
        raise UsageError(f"{name} takes JSON: {error}.") from None
    return shaped(field, value)


def _number(command: Command, field: ScalarField, text: str) -> int:
    """Decimal, 0x or 0b; a coded number also by its meaning."""
    for base in (10, 0):
        try:
            return int(text, base)
        except ValueError:
            pass
    rows = command.coded.get(field.key, ())
    for row in rows:
        if folded(row.text) == folded(text):
            return row.code
    near = hint(text, (row.text for row in rows))
    raise UsageError(f"{field.attribute} takes a whole number ({field.kind}), not {text!r}.{near}")


def _file(name: str, what: str) -> bytes:
    try:
        return sys.stdin.buffer.read() if name == "-" else Path(name).read_bytes()
    except OSError as error:
        raise UsageError(f"{what}: {name} cannot be read: {error.strerror}.") from None


def shaped(field: Field, value: Any) -> Any:
    """JSON as the client takes it: names of fields in its spelling, alternatives as tuples. What does not have the
    form of the field is left as it is; the client says what is wrong with it."""
    if isinstance(field, ListField) and isinstance(value, list):
        return [_record(layouts()[field.type], item) for item in value]
    if isinstance(field, VariantField):
        return _alternative(field, value)
    return value


def _record(layout: Layout, value: Any) -> Any:
    given = layout.given
    if isinstance(value, dict) and not (
        len(given) == 1 and isinstance(given[0], VariantField) and ALTERNATIVE in value
    ):
        return _named(layout, value)
    if isinstance(value, list) and len(value) == len(given):
        return tuple(shaped(field, one) for field, one in zip(given, value, strict=True))
    return (shaped(given[0], value),) if len(given) == 1 else value


def _named(layout: Layout, value: Mapping[str, Any]) -> dict[str, Any]:
    by_fold = {folded(field.attribute): field for field in layout.fields}
    found = {}
    for name, one in value.items():
        field = by_fold.get(folded(name))
        found[field.attribute if field else name] = shaped(field, one) if field else one
    return found


def _alternative(field: VariantField, value: Any) -> Any:
    """From ``{"alternative": NAME, ...}`` or ``[NAME, {...}]``."""
    if isinstance(value, dict) and ALTERNATIVE in value:
        value = [value[ALTERNATIVE], {name: one for name, one in value.items() if name != ALTERNATIVE}]
    if isinstance(value, list) and len(value) == 2 and isinstance(value[0], str):
        one = next((one for one in field.alternatives if folded(one.name) == folded(value[0])), None)
        return (one.name, _record(layouts()[one.type], value[1])) if one else tuple(value)
    return value


def check_values(command: Command, values: Mapping[str, Any], method: Callable[..., Any]) -> None:
    """Raise EncodeError now, before anything is connected or asked, if the client would refuse the values."""
    from vorlinkit.client import plans

    plan = getattr(plans, command.snake.upper())
    defaults = dict(zip(reversed(_by_place(method)), reversed(method.__defaults__ or ()), strict=False))
    defaults |= method.__kwdefaults__ or {}
    plan.encode(tuple(values.get(name, defaults.get(name)) for name in plan.names))
