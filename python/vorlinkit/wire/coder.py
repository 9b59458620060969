"""Payload bytes to records and back, read off the layouts of the catalogue.

Written on its own: it shares no code with the C++ library, so that the two can check each other.
"""

from __future__ import annotations

from collections.abc import Sequence

from vorlinkit.catalogue import (
    NUMBER_WIDTHS,
    Alternative,
    BlobField,
    Field,
    ListField,
    ScalarField,
    VariantField,
)

from .records import Record, Value, Variant


class PayloadError(Exception):
    """A payload does not have the layout; the text names what is missing.

    When a payload was read, `path` names the field that could not be (``listOfMotors[1].MotorType``), and `offset`
    is where it begins in the payload.
    """

    path = ""
    offset = 0


def encode(fields: Sequence[Field], record: Record) -> bytes:
    """The bytes of a record. A count that the record does not hold is taken from its list."""
    out = bytearray()
    _encode_record(fields, record, out)
    return bytes(out)


def decode(fields: Sequence[Field], payload: bytes) -> tuple[Record, int]:
    """The record that a payload holds, and how many bytes are left over behind it."""
    reader = _Reader(payload)
    record = _decode_record(fields, reader, [])
    return record, reader.left


def _encode_record(fields: Sequence[Field], record: Record, out: bytearray) -> None:
    lengths = {
        field.count: len(_sized(record, field.key))
        for field in fields
        if isinstance(field, (ListField, BlobField))
    }
    for field in fields:
        if isinstance(field, ScalarField):
            _encode_scalar(field, record.get(field.key, lengths.get(field.key)), out)
        elif isinstance(field, BlobField):
            out += bytes(_sized(record, field.key))  # type: ignore[arg-type]
        elif isinstance(field, ListField):
            for item in _sized(record, field.key):
                if not isinstance(item, dict):
                    raise PayloadError(f"{field.key}: items are records")
                _encode_record(field.items, item, out)
        else:
            variant = record.get(field.attribute)
            if not isinstance(variant, Variant):
                raise PayloadError(f"{field.attribute}: no alternative given")
            _encode_record(_alternative_named(field, variant.name).fields, variant.fields, out)


def _sized(record: Record, key: str) -> bytes | list[Record]:
    value = record.get(key, [])
    if not isinstance(value, (bytes, list)):
        raise PayloadError(f"{key}: a list is needed")
    return value


def _encode_scalar(field: ScalarField, value: Value | None, out: bytearray) -> None:
    if field.kind == "string":
        if not isinstance(value, str):
            raise PayloadError(f"{field.key}: a text is needed")
        out += value.encode("utf-8", "surrogateescape") + b"\0"
    elif field.kind == "uuid":
        if not isinstance(value, str):
            raise PayloadError(f"{field.key}: a uuid text is needed")
        out += bytes.fromhex(value.replace("-", ""))
    else:
        width = NUMBER_WIDTHS[field.kind]
        if not isinstance(value, int) or not 0 <= value < 1 << 8 * width:
            raise PayloadError(f"{field.key}: {value!r} is not a {field.kind}")
        out += value.to_bytes(width, "big")


class _Reader:
    """A cursor over a payload."""

    def __init__(self, payload: bytes) -> None:
        self._payload = payload
        self._at = 0

    @property
    def at(self) -> int:
        return self._at

    @property
    def left(self) -> int:
        return len(self._payload) - self._at

    def number(self, kind: str) -> int:
        width = NUMBER_WIDTHS[kind]
        if self.left < width:
            # A 64-bit number travels as two 32-bit halves, and is reported as one.
            raise PayloadError(f"Not enough bytes for uint{min(8 * width, 32)}")
        return int.from_bytes(self.bytes(width), "big")

    def peek_number(self, kind: str) -> int:
        at = self._at
        value = self.number(kind)
        self._at = at
        return value

    def bytes(self, count: int) -> bytes:
        taken = self._payload[self._at : self._at + count]
        self._at += count
        return taken

    def string(self) -> str:
        end = self._payload.find(b"\0", self._at)
        if end < 0:
            raise PayloadError("String not null-terminated")
        taken = self.bytes(end - self._at)
        self._at += 1
        return taken.decode("utf-8", "surrogateescape")

    def uuid(self) -> str:
        if self.left < 16:
            raise PayloadError("Not enough bytes for uuid")
        return uuid_text(self.bytes(16))


def uuid_text(raw: bytes) -> str:
    """The 8-4-4-4-12 form of 16 bytes, upper case, in wire order."""
    digits = raw.hex().upper()
    return "-".join((digits[:8], digits[8:12], digits[12:16], digits[16:20], digits[20:]))


def _decode_record(fields: Sequence[Field], reader: _Reader, outer: list[Record]) -> Record:
    record: Record = {}
    scopes = [*outer, record]
    for field in fields:
        try:
            _decode_field(field, record, reader, scopes)
        except PayloadError as error:
            inside = not error.path
            if inside:
                error.offset = reader.at
            if not isinstance(field, VariantField):
                error.path = field.key if inside else f"{field.key}{error.path}"
            elif inside:
                error.path = field.on
            raise
    return record


def _decode_field(field: Field, record: Record, reader: _Reader, scopes: list[Record]) -> None:
    if isinstance(field, ScalarField):
        record[field.key] = _decode_scalar(field, reader)
    elif isinstance(field, BlobField):
        count = _number_in(record, field.count)
        if reader.left < count:
            raise PayloadError("Not enough bytes for uint8")
        record[field.key] = reader.bytes(count)
    elif isinstance(field, ListField):
        items: list[Record] = []
        record[field.key] = items
        for at in range(_number_in(record, field.count)):
            try:
                items.append(_decode_record(field.items, reader, scopes))
            except PayloadError as error:
                error.path = f"[{at}].{error.path}"
                raise
    else:
        alternative = _choose(field, reader, scopes)
        record[field.attribute] = Variant(
            alternative.name, _decode_record(alternative.fields, reader, scopes)
        )


def _decode_scalar(field: ScalarField, reader: _Reader) -> Value:
    if field.kind == "string":
        return reader.string()
    if field.kind == "uuid":
        return reader.uuid()
    return reader.number(field.kind)


def _choose(field: VariantField, reader: _Reader, scopes: Sequence[Record]) -> Alternative:
    if field.inside:
        first = field.alternatives[0].fields[0]
        assert isinstance(first, ScalarField)
        value = reader.peek_number(first.kind)
    else:
        holder: Record = next((scope for scope in reversed(scopes) if field.on in scope), {})
        value = _number_in(holder, field.on)
    for alternative in field.alternatives:
        if value in alternative.when:
            return alternative
    raise PayloadError("Unknown variant")


def _number_in(record: Record, key: str) -> int:
    value = record.get(key)
    if not isinstance(value, int):
        raise PayloadError(f"{key}: no number stands ahead of what it counts or selects")
    return value


def _alternative_named(field: VariantField, name: str) -> Alternative:
    for alternative in field.alternatives:
        if alternative.name == name:
            return alternative
    raise PayloadError(f"{field.attribute}: there is no alternative {name}")
