"""Plausible, repeatable values for whatever a layout asks for.

A component of the machine says what it knows; everything else of an answer is made up here from the name, the kind
and the place of each field. The same question always gets the same answer, and an answer always keeps its own
promises: counts match their lists, a discriminator names the alternative that follows.
"""

from __future__ import annotations

import re
import zlib
from collections.abc import Callable, Mapping, Sequence
from typing import Final, TypeVar

from vorlinkit.catalogue import (
    NUMBER_WIDTHS,
    Alternative,
    BlobField,
    Field,
    ListField,
    ScalarField,
    VariantField,
)
from vorlinkit.wire.coder import uuid_text
from vorlinkit.wire.records import Known, Record, Value, Variant

from .pictures import BITS_PER_PIXEL, PictureSize, framed

Held = TypeVar("Held")

LIST_LENGTHS: Final = (2, 2, 1)
"""How many entries a list gets at the outermost level, one level in, and deeper."""

_TIMES: Final = re.compile(r"(Timestamp|Time|StartPoint|EndPoint|Date)$")
_UUID: Final = re.compile(r"[0-9A-Fa-f]{8}(-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}$")
_ZEROES: Final = re.compile(r"^(CommandError|Reserved\d*)$|ErrorCode$|^ListAction$")
_ORDINALS: Final = re.compile(r"(ID|Id|Number|Index|Position|Division|Side|Module|Row|Column|Type|Stage)$")
_SWITCHES: Final = re.compile(
    r"^(Is|Has|Can|Enable|Use|Ignore)(?=[A-Z])|^Enable$|(State|Status|Enabled|Available|Supported|Required|Active)$|"
    r"(Protected|Modified|Only|Visible|Settable|Valid|Present|Writable|Preference|Mask\d*)$"
)
_PERCENTAGES: Final = re.compile(
    r"^Percent|(Level|Rate|Percent|Percentage|Complete|Brightness|Coverage|Scope)$"
)
_BOUNDS: Final = (
    (re.compile(r"^(Min(imum)?|Lower|Lowest|First)(?=[A-Z]|$)"), 0),
    (re.compile(r"^(Max(imum)?|Upper|Highest|Last)(?=[A-Z]|$)"), 100),
)

_TEXTS: Final[Sequence[tuple[re.Pattern[str], str]]] = tuple(
    (re.compile(pattern), text)
    for pattern, text in (
        (r"IPAddress|DNSServer|Address$", "192.0.2.{n}"),
        (r"^Division(Name)?$", "D{n}"),
        (r"UUID|GUID", "00000000-0000-4000-8000-{n:012d}"),
        (r"Version", "1.{n}.0"),
        (r"Metadata|MetaData|JSON", "{{}}"),
        (r"CSV", "Name;Value"),
        (r"ErrorString|ErrorText", ""),
        (r"AutomatedDeviceID", "AD{n}"),
        (r"Checksum|Hash", "{n:08x}"),
    )
)


class Plausible:
    """Makes complete records out of partly known ones.

    ``clock`` gives the machine's time, ``picture`` the size of captured frames, ``blob_size`` the length of
    all other byte blobs.
    """

    def __init__(
        self, clock: Callable[[], int], blob_size: int = 64, picture: PictureSize | None = None
    ) -> None:
        self._clock = clock
        self._blob_size = blob_size
        self._picture = picture or PictureSize()
        self._camera = {
            "NumPixels": self._picture.pixels,
            "NumLines": self._picture.lines,
            "MaxLines": self._picture.lines,
            "BitsPerPixel": BITS_PER_PIXEL,
        }

    def complete(self, fields: Sequence[Field], *known: Known) -> Record:
        """A whole record of this layout; of several sources that know a value the first counts."""
        return self._record(fields, known, index=0, depth=0)

    def _record(self, fields: Sequence[Field], known: Sequence[Known], index: int, depth: int) -> Record:
        frame = framed(fields, known, self._picture)
        known = [frame, *known] if frame else known
        counts = self._lengths(fields, known, depth)
        selectors = _selectors(fields)
        record: Record = {}
        for field in fields:
            if isinstance(field, ScalarField):
                record[field.key] = self._scalar(
                    field, known, index, counts.get(field.key), selectors.get(field.key)
                )
                if field.key in selectors:
                    known = [{field.key: record[field.key]}, *known]
            elif isinstance(field, BlobField):
                record[field.key] = self._blob(field, known, counts[field.count])
            elif isinstance(field, ListField):
                record[field.key] = self._list(field, known, counts[field.count], depth)
            else:
                record[field.attribute] = self._variant(field, known, index, depth)
        return record

    def _lengths(self, fields: Sequence[Field], known: Sequence[Known], depth: int) -> Mapping[str, int]:
        """The count of every list and blob of a record, by the key of its count field."""
        widths = {
            field.key: NUMBER_WIDTHS.get(field.kind, 1) for field in fields if isinstance(field, ScalarField)
        }
        lengths: dict[str, int] = {}
        for field in fields:
            if not isinstance(field, (ListField, BlobField)):
                continue
            if isinstance(field, BlobField):
                blob = _first(known, field.key, bytes)
                length = self._blob_size if blob is None else len(blob)
            else:
                given = _first(known, field.key, list)
                length = LIST_LENGTHS[min(depth, len(LIST_LENGTHS) - 1)] if given is None else len(given)
            lengths[field.count] = min(length, (1 << 8 * widths.get(field.count, 1)) - 1)
        return lengths

    def _scalar(
        self,
        field: ScalarField,
        known: Sequence[Known],
        index: int,
        count: int | None,
        choices: Sequence[int] | None,
    ) -> Value:
        if count is not None:
            return count
        if field.kind == "uuid":
            uuid = _first(known, field.key, str)
            return (
                uuid if uuid is not None and _UUID.match(uuid) else uuid_text(_digest(field.key, index) * 4)
            )
        if field.kind == "string":
            text = _first(known, field.key, str)
            return text if text is not None else _plausible_text(field.key, index)
        limit = 1 << 8 * NUMBER_WIDTHS[field.kind]
        value = _first(known, field.key, int)
        if value is not None and 0 <= value < limit and (choices is None or value in choices):
            return value
        if choices is not None:
            return choices[index % len(choices)]
        return self._plausible_number(field, index) % limit

    def _plausible_number(self, field: ScalarField, index: int) -> int:
        key = field.key
        if key in self._camera:
            return self._camera[key]
        if _ZEROES.search(key):
            return 0
        if field.kind == "u64" and _TIMES.search(key):
            return self._clock()
        for pattern, bound in _BOUNDS:
            if pattern.search(key):
                return bound if field.kind == "u8" else 10 * bound  # so that made-up values lie between
        if _SWITCHES.search(key):
            return 1
        if _ORDINALS.search(key):
            return index + 1
        if _PERCENTAGES.search(key):
            return 50 + index
        return 1 + int.from_bytes(_digest(key, index)[:2], "big") % (200 if field.kind == "u8" else 1000)

    def _blob(self, field: BlobField, known: Sequence[Known], count: int) -> bytes:
        value = _first(known, field.key, bytes)
        if value is not None:
            return value[:count]
        return (bytes(range(256)) * (count // 256 + 1))[:count]

    def _list(self, field: ListField, known: Sequence[Known], count: int, depth: int) -> list[Record]:
        parts: list[Record] = _first(known, field.key, list) or []
        selectors = _inherited(field.items, known)
        return [
            self._record(field.items, ([parts[at]] if at < len(parts) else []) + selectors, at, depth + 1)
            for at in range(count)
        ]

    def _variant(self, field: VariantField, known: Sequence[Known], index: int, depth: int) -> Variant:
        given = _first(known, field.attribute, Variant)
        chosen = _chosen(field, known, given, index)
        sources: list[Known] = [given.fields] if given is not None and given.name == chosen.name else []
        if field.inside:
            wanted = _first(known, field.on, int)
            when = wanted if wanted is not None and wanted in chosen.when else chosen.when[0]
            sources.insert(0, {field.on: when})
        return Variant(chosen.name, self._record(chosen.fields, sources, index, depth))


def _first(known: Sequence[Known], key: str, kind: type[Held]) -> Held | None:
    for source in known:
        value = source.get(key)
        if isinstance(value, kind):
            return value
    return None


def _chosen(field: VariantField, known: Sequence[Known], given: Variant | None, index: int) -> Alternative:
    wanted = _first(known, field.on, int)
    for alternative in field.alternatives:
        if wanted is not None and wanted in alternative.when:
            return alternative
    for alternative in field.alternatives:
        if given is not None and alternative.name == given.name:
            return alternative
    return field.alternatives[index % len(field.alternatives)]


def _selectors(fields: Sequence[Field]) -> Mapping[str, Sequence[int]]:
    """The discriminators among the fields of a record, with the values that name an alternative."""
    found: dict[str, list[int]] = {}
    for field in fields:
        if isinstance(field, VariantField):
            inner: list[Sequence[Field]] = [alternative.fields for alternative in field.alternatives]
            if not field.inside:
                found.setdefault(field.on, []).extend(when for one in field.alternatives for when in one.when)
        else:
            inner = [field.items] if isinstance(field, ListField) else []
        for fields_within in inner:
            own = {one.key for one in fields_within if isinstance(one, ScalarField)}
            for key, values in _selectors(fields_within).items():
                if key not in own:
                    found.setdefault(key, []).extend(values)
    return found


def _inherited(items: Sequence[Field], known: Sequence[Known]) -> list[Known]:
    """What the entries of a list have to know of the record around them: discriminators that stand there."""
    own = {field.key for field in items if isinstance(field, ScalarField)}
    keys = {key for key in _selectors(items) if key not in own}
    found = {key: value for key in keys if (value := _first(known, key, int)) is not None}
    return [found] if found else []


def _plausible_text(key: str, index: int) -> str:
    for pattern, text in _TEXTS:
        if pattern.search(key):
            return text.format(n=index + 1)
    base = re.sub(r"(ID|Name)$", "", key) or key
    return f"{base}{index + 1}"


def _digest(key: str, index: int) -> bytes:
    return zlib.crc32(f"{key}/{index}".encode()).to_bytes(4, "big")
