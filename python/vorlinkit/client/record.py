"""What the record classes in pure Python are made of: a base class, and one descriptor per kind of field.

They take, refuse and show what those of the extension module do. One difference: the items of a blob's list are
copies of its bytes, not views of them.
"""

from __future__ import annotations

import difflib
import operator
from collections.abc import Callable, Iterator, Mapping, Sequence
from typing import Any, ClassVar, Final

from .layouts import Layout

MOST_CHARACTERS: Final = 80
MOST_BYTES: Final = 32
MOST_ITEMS: Final = 4
SHOWN_ITEMS: Final = 3

Held = dict[str, Any]


class Attribute:
    """One attribute of a record class. `make`: its value in a new record; `what`: what it takes, in words."""

    def __init__(self, name: str, what: str, make: Callable[[], Any]) -> None:
        self.name = name
        self.what = what
        self.make = make

    def __get__(self, record: Record | None, owner: type | None = None) -> Any:
        return self if record is None else self.read(record._held[self.name])

    def __set__(self, record: Record, value: Any) -> None:
        try:
            record._held[self.name] = self.taken(value)
        except (TypeError, ValueError) as error:
            text = f"{type(record).__name__}: {self.name} takes {self.what}, not {value!r:.200}"
            raise TypeError(text) from error

    def read(self, held: Any) -> Any:
        return held

    def taken(self, value: Any) -> Any:
        """What is held of a value. Raises TypeError or ValueError if it is none."""
        raise NotImplementedError

    def shown(self, held: Any) -> str:
        return repr(held)


class Number(Attribute):
    def __init__(self, name: str, width: int) -> None:
        self.most = (1 << 8 * width) - 1
        super().__init__(name, f"int of 0 to {self.most}", int)

    def taken(self, value: Any) -> int:
        number = operator.index(value)
        if not 0 <= number <= self.most:
            raise ValueError(number)
        return number


class Text(Attribute):
    def __init__(self, name: str) -> None:
        super().__init__(name, "str", str)

    def taken(self, value: Any) -> str:
        if isinstance(value, bytes | bytearray):
            return value.decode("utf-8", "surrogateescape")
        if not isinstance(value, str):
            raise TypeError
        value.encode("utf-8", "surrogateescape")
        return str(value)

    def shown(self, held: str) -> str:
        return f"{held[:MOST_CHARACTERS]!r}{_rest(len(held), MOST_CHARACTERS)}"


class Items(Attribute):
    """A list of records. Reading gives a new list of the items that are held; writing holds copies."""

    def __init__(self, name: str, item: Callable[[], type[Record]]) -> None:
        super().__init__(name, "a sequence of its items", list)
        self.item = item

    def read(self, held: list[Record]) -> list[Record]:
        return list(held)

    def taken(self, value: Any) -> list[Record]:
        if not isinstance(value, Sequence) or isinstance(value, str | bytes):
            raise TypeError
        item = self.item()
        if not all(isinstance(each, item) for each in value):
            raise TypeError
        return [item._copied(each) for each in value]

    def shown(self, held: list[Record]) -> str:
        shown = SHOWN_ITEMS if len(held) > MOST_ITEMS else len(held)
        return f"[{', '.join(map(repr, held[:shown]))}{_rest(len(held), shown)}]"


class BlobItems(Attribute):
    """A blob as a list of one-byte items. It holds nothing: `blob` does."""

    def __init__(self, name: str, item: Callable[[], type[Record]], field: str, blob: str) -> None:
        super().__init__(name, "a sequence of its items", bytes)
        self.item = item
        self.field = field
        self.blob = blob

    def __get__(self, record: Record | None, owner: type | None = None) -> Any:
        if record is None:
            return self
        item = self.item()
        return [item(**{self.field: byte}) for byte in record._held[self.blob]]

    def __set__(self, record: Record, value: Any) -> None:
        items = Items(self.name, self.item)
        items.__set__(record, value)
        record._held[self.blob] = bytes(getattr(each, self.field) for each in record._held.pop(self.name))


class Blob(Attribute):
    def __init__(self, name: str) -> None:
        super().__init__(name, "bytes", bytes)

    def taken(self, value: Any) -> bytes:
        return bytes(memoryview(value))

    def shown(self, held: bytes) -> str:
        return f"{held[:MOST_BYTES]!r}{_rest(len(held), MOST_BYTES)}"


class OneOf(Attribute):
    """A variant: a record of one of several classes, the first of them in a new record."""

    def __init__(self, name: str, alternatives: Callable[[], tuple[type[Record], ...]]) -> None:
        super().__init__(name, "a record of one of its alternatives", lambda: alternatives()[0]())
        self.alternatives = alternatives

    def taken(self, value: Any) -> Record:
        for each in self.alternatives():
            if isinstance(value, each):
                return each._copied(value)
        raise TypeError


class Record:
    """The base of all record classes in pure Python."""

    __slots__ = ("_held", "__weakref__")
    _layout: ClassVar[Layout]
    _attributes: ClassVar[Mapping[str, Attribute]]
    _held: Held
    __hash__ = None  # type: ignore[assignment]

    def __init__(self, **values: Any) -> None:
        self._held = {attribute.name: attribute.make() for attribute in self._stored()}
        for name, value in values.items():
            if name not in self._attributes:
                raise TypeError(_unexpected(type(self).__name__, name, list(self._attributes)))
            setattr(self, name, value)

    @classmethod
    def _stored(cls) -> Iterator[Attribute]:
        """The attributes that hold something; the others show it in another way."""
        return (each for each in cls._attributes.values() if not isinstance(each, BlobItems))

    @classmethod
    def _of(cls, held: Held) -> Record:
        """A record of what was read from a payload, which needs no checks."""
        record = cls.__new__(cls)
        record._held = held
        return record

    @classmethod
    def _copied(cls, record: Record) -> Record:
        return cls._of({name: _copy_of(value) for name, value in record._held.items()})

    def __eq__(self, other: object) -> bool:
        if type(self) is not type(other):
            return NotImplemented
        return self._held == other._held  # type: ignore[attr-defined, no-any-return]

    def __repr__(self) -> str:
        values = ", ".join(f"{each.name}={each.shown(self._held[each.name])}" for each in self._stored())
        return f"{type(self).__name__}({values})"

    def __copy__(self) -> Record:
        return self._copied(self)

    def __deepcopy__(self, memo: Any) -> Record:
        return self._copied(self)

    def __reduce__(self) -> tuple[Any, ...]:
        return _rebuild, (type(self), self._held)


def _rebuild(kind: type[Record], held: Held) -> Record:
    return kind._of(held)


def _copy_of(value: Any) -> Any:
    if isinstance(value, Record):
        return value._copied(value)
    return [each._copied(each) for each in value] if isinstance(value, list) else value


def _rest(size: int, shown: int) -> str:
    return f" ... {size - shown} more" if size > shown else ""


def _unexpected(name: str, word: str, known: list[str]) -> str:
    near = difflib.get_close_matches(word, known)
    hint = f"did you mean {' or '.join(near)}?" if near else f"it takes {', '.join(known)}"
    return f"{name}() got an unexpected keyword argument {word!r}; {hint if known else 'it takes none'}"
