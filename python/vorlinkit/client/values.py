"""The values of a call, looked at closely: whatever a request can be made of becomes its payload, and the rest is
refused with the name of the parameter and what it takes.

`Plan.encode` comes here with lists, blobs and variants, and with what its own quick way does not take.
"""

from __future__ import annotations

import difflib
import operator
from collections.abc import Iterable, Mapping, Sequence
from typing import Any, Final, NoReturn
from uuid import UUID

from vorlinkit.catalogue import (
    NUMBER_WIDTHS,
    Alternative,
    BlobField,
    Field,
    ListField,
    ScalarField,
    VariantField,
)

from .errors import EncodeError
from .layouts import Layout, bytes_attribute, catalogue, layouts

SHOWN: Final = 60
"""Characters of a refused value that an error's text shows."""


def encode(command: str, values: Sequence[Any]) -> bytes:
    """The payload of a command's request with these parameters. Raises EncodeError."""
    request = catalogue().named(command).request
    if request is None:
        return b""
    layout = layouts()[request.type]
    writer = _Writer(command)
    writer.record(layout, dict(zip((field.attribute for field in layout.given), values, strict=True)), "")
    return bytes(writer.out)


class _Writer:
    """Writes one request; owns the payload so far."""

    def __init__(self, command: str) -> None:
        self.command = command
        self.out = bytearray()

    def refuse(self, field: str, value: Any, limits: str) -> NoReturn:
        shown = repr(value)
        shown = shown if len(shown) <= SHOWN else f"{shown[:SHOWN]}..."
        raise EncodeError(
            f"{self.command}: {field} takes {limits}, not {shown}. Nothing was sent.",
            command=self.command,
            field=field,
            value=value,
            limits=limits,
        )

    def record(self, layout: Layout, named: Mapping[str, Any], prefix: str) -> None:
        """All fields in wire order; `named` has the given ones, and may have others, which then must fit."""
        held = {
            field.attribute: self.prepared(field, named[field.attribute], prefix)
            for field in layout.fields
            if not isinstance(field, ScalarField)
        }
        for field in layout.fields:
            if isinstance(field, ScalarField):
                self.scalar(field, self.value_of(layout, field, named, held, prefix), prefix)
            elif isinstance(field, BlobField):
                self.out += held[field.attribute]
            elif isinstance(field, ListField):
                for at, item in enumerate(held[field.attribute]):
                    name, inner = f"{prefix}{field.attribute}[{at}]", layouts()[field.type]
                    self.record(inner, self.named(inner, item, name), f"{name}.")
            else:
                alternative, fields = held[field.attribute]
                self.record(layouts()[alternative.type], fields, f"{prefix}{field.attribute}.")

    def value_of(
        self,
        layout: Layout,
        field: ScalarField,
        named: Mapping[str, Any],
        held: Mapping[str, Any],
        prefix: str,
    ) -> Any:
        """A given value, or the one that follows from another field; if both, they have to agree."""
        if not layout.derives(field):
            return named[field.attribute]
        told = named.get(field.attribute)
        if field.key in layout.counts:
            counted = layout.counts[field.key]
            derived = len(held[counted.attribute])
            most = (1 << 8 * NUMBER_WIDTHS[field.kind]) - 1
            if derived > most:
                name = prefix + counted.attribute
                self.refuse(
                    name,
                    held[counted.attribute],
                    f"at most {most} {'bytes' if isinstance(counted, BlobField) else 'items'} (these are {derived})",
                )
            fitting: tuple[int, ...] = (derived,)
        elif field.key in layout.selectors:
            fitting = held[layout.selectors[field.key].attribute][0].when
        else:
            fitting = layout.when
        if told is None:
            return fitting[0]
        if told not in fitting:
            self.refuse(
                prefix + field.attribute,
                told,
                f"{' or '.join(map(str, fitting))}, which follows from the other values (leave it out)",
            )
        return told

    def prepared(self, field: Field, value: Any, prefix: str) -> Any:
        """A list as a tuple, a blob as a view of its bytes, a variant as its alternative and that one's values."""
        name = prefix + field.attribute
        if isinstance(field, BlobField):
            view = _bytes_of(value)
            return view if view is not None else self.refuse(name, value, BYTES)
        if isinstance(field, ListField):
            if isinstance(value, str | bytes | bytearray | memoryview | Mapping) or not isinstance(
                value, Iterable
            ):
                self.refuse(name, value, f"a list, tuple or other iterable of {field.type}")
            return tuple(value)
        assert isinstance(field, VariantField)
        return self.alternative(field, value, name)

    def alternative(
        self, field: VariantField, value: Any, name: str
    ) -> tuple[Alternative, Mapping[str, Any]]:
        """From a record, or from the alternative's name and its values."""
        choices = {one.name: one for one in field.alternatives}
        if isinstance(value, tuple) and len(value) == 2 and isinstance(value[0], str):
            one = choices.get(value[0])
            if one is None:
                self.refuse(name, value[0], f"one of {', '.join(choices)}{_hint(value[0], choices)}")
            return one, self.named(layouts()[one.type], value[1], name)
        for one in field.alternatives:
            if _is_a(value, one.type):
                return one, self.named(layouts()[one.type], value, name)
        limits = (
            f"a record of an alternative, or its name and values; the alternatives are {', '.join(choices)}"
        )
        self.refuse(name, value, limits)

    def named(self, layout: Layout, value: Any, name: str) -> Mapping[str, Any]:
        """A record's values by attribute, from a record, a mapping, a tuple in order, or the value of the only one."""
        if _is_a(value, layout.type):
            return _of_record(layout, value)
        if isinstance(value, Mapping):
            return self.of_mapping(layout, value, name)
        names = [field.attribute for field in layout.given]
        if len(names) == 1 and not (isinstance(value, tuple) and len(value) == 1):
            return {names[0]: value}
        if not isinstance(value, tuple | list):
            self.refuse(
                name, value, f"a {layout.type}, or its values by name or in order ({', '.join(names)})"
            )
        if len(value) != len(names):
            self.refuse(name, value, f"{len(names)} values ({', '.join(names)})")
        return dict(zip(names, value, strict=True))

    def of_mapping(self, layout: Layout, value: Mapping[Any, Any], name: str) -> Mapping[str, Any]:
        known = [field.attribute for field in layout.fields]
        for key in value:
            if key not in known:
                self.refuse(name, key, f"the keys {', '.join(known)}{_hint(key, known)}")
        for field in layout.given:
            if field.attribute not in value:
                self.refuse(
                    name,
                    value,
                    f"all of {', '.join(f.attribute for f in layout.given)} ({field.attribute} is missing)",
                )
        return value

    def scalar(self, field: ScalarField, value: Any, prefix: str) -> None:
        if field.kind == "string":
            self.text(field, value, prefix)
        elif field.kind == "uuid":
            self.uuid(field, value, prefix)
        else:
            width = NUMBER_WIDTHS[field.kind]
            most = (1 << 8 * width) - 1
            number = None if isinstance(value, bool) else _whole(value)
            if number is None or not 0 <= number <= most:
                self.refuse(prefix + field.attribute, value, f"a whole number from 0 to {most}")
            self.out += number.to_bytes(width, "big")

    def text(self, field: ScalarField, value: Any, prefix: str) -> None:
        if not isinstance(value, str) or "\0" in value:
            self.refuse(prefix + field.attribute, value, TEXT)
        try:
            self.out += value.encode("utf-8", "surrogateescape") + b"\0"
        except UnicodeEncodeError:
            self.refuse(prefix + field.attribute, value, TEXT)

    def uuid(self, field: ScalarField, value: Any, prefix: str) -> None:
        if isinstance(value, str | UUID):
            digits = str(value)
            try:
                if [len(part) for part in digits.split("-")] == [8, 4, 4, 4, 12]:
                    self.out += bytes.fromhex(digits.replace("-", ""))
                    return
            except ValueError:
                pass
        self.refuse(prefix + field.attribute, value, UUID_TEXT)


TEXT: Final = "text without a 0 character"
UUID_TEXT: Final = "a UUID as text of 36 characters (8-4-4-4-12 hexadecimal digits)"
BYTES: Final = "bytes or another buffer of bytes"


def _whole(value: Any) -> int | None:
    """Also of other libraries' whole numbers; a float is none, even 2.0."""
    try:
        return operator.index(value)
    except TypeError:
        return None


def _bytes_of(value: Any) -> memoryview | None:
    try:
        return memoryview(value).cast("B")
    except TypeError:
        return None


def _is_a(value: Any, name: str) -> bool:
    """Whether a value is a record of this type, of either kind of record classes."""
    return any(each.__name__ == name for each in type(value).__mro__)


def _of_record(layout: Layout, record: Any) -> Mapping[str, Any]:
    """What a record holds but for what follows from it: counts and selecting numbers are easily left behind."""
    return {
        field.attribute: getattr(
            record, bytes_attribute(layout, field) if isinstance(field, BlobField) else field.attribute
        )
        for field in layout.given
    }


def _hint(word: Any, words: Iterable[str]) -> str:
    near = difflib.get_close_matches(str(word), list(words), 1)
    return f" (did you mean {near[0]}?)" if near else ""
