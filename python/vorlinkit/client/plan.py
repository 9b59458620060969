"""One command as the client knows it: what a call's values become, and what its answer is read as.

The build makes one `Plan` per command, in `vorlinkit.client.plans`. They know enough for the common call; the
catalogue and the record classes are loaded when a plan is used that needs them.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from struct import Struct
from struct import error as struct_error
from typing import Any, Final, Generic, NoReturn, TypeVar

from .errors import DecodeError

R = TypeVar("R")
N = TypeVar("N")
R_co = TypeVar("R_co", covariant=True)
N_co = TypeVar("N_co", covariant=True)

Values = tuple[Any, ...]
Path = tuple[str, ...]
"""Attributes to go through, one after the other."""


class Plan(Generic[R_co, N_co]):
    """How to ask one command, typed by its response and its notification. Any thread may use it.

    `names`, `kinds`: of the request's parameters, in wire order; counts, lengths and discriminators are derived and
    are none. `effect`: "read" or "change". `subscribes`: the index of the parameter that asks for notifications, -1 if
    none does. `unasked`: notifications come without one. `address`: the indices of the parameters that say what the
    notifications are about. `carried`: where a notification repeats each of them, () where it does not. `echoed`: the
    parameters that the response repeats, and where.
    """

    __slots__ = (
        "id",
        "name",
        "snake",
        "effect",
        "names",
        "kinds",
        "subscribes",
        "unasked",
        "address",
        "carried",
        "echoed",
        "has_error",
        "_types",
        "_texts",
        "_pack",
        "_decoders",
    )

    def __init__(
        self,
        id: int,
        name: str,
        snake: str,
        effect: str,
        names: tuple[str, ...] = (),
        kinds: tuple[str, ...] = (),
        *,
        subscribes: int = -1,
        unasked: bool = False,
        address: tuple[int, ...] = (),
        carried: tuple[Path, ...] = (),
        echoed: tuple[tuple[int, Path], ...] = (),
        has_error: bool = False,
        answered: bool = True,
    ) -> None:
        self.id = id
        self.name = name
        self.snake = snake
        self.effect = effect
        self.names = names
        self.kinds = kinds
        self.subscribes = subscribes
        self.unasked = unasked
        self.address = address
        self.carried = carried
        self.echoed = echoed
        self.has_error = has_error
        # For the quick way, which most requests go: texts, then numbers, all of exactly these types.
        self._texts = kinds.count("string")
        numbers = kinds[self._texts :]
        is_quick = "string" not in numbers and all(kind in _FORMATS for kind in kinds)
        self._types = tuple(str if kind == "string" else int for kind in kinds) if is_quick else None
        self._pack = Struct(">" + "".join(_FORMATS[kind] for kind in numbers if is_quick)).pack
        self._decoders: dict[str, Callable[[bytes], Any]] = {} if answered else {"response": _nothing}

    def __repr__(self) -> str:
        return f"<Plan of {self.name}, command {self.id}>"

    def encode(self, values: Values) -> bytes:
        """The request's payload. Raises EncodeError, which names the parameter."""
        if tuple(map(type, values)) == self._types:
            try:
                if not (texts := self._texts):
                    return self._pack(*values)
                head = "\0".join(values[:texts]) + "\0"
                if head.count("\0") == texts:
                    return head.encode() + self._pack(*values[texts:])
            except (struct_error, UnicodeEncodeError):
                pass
        from .values import encode

        return encode(self.name, values)

    def decode_response(self, payload: bytes) -> R_co:
        """The response's record, or None if the command has none. Raises DecodeError."""
        try:
            return self._decoders["response"](payload)  # type: ignore[no-any-return]
        except KeyError:
            return self._decode("response", payload)  # type: ignore[no-any-return]
        except RuntimeError as error:
            self._undecodable("response", payload, error)

    def decode_notification(self, payload: bytes) -> N_co:
        """The notification's record. Raises DecodeError."""
        try:
            return self._decoders["notification"](payload)  # type: ignore[no-any-return]
        except KeyError:
            return self._decode("notification", payload)  # type: ignore[no-any-return]
        except RuntimeError as error:
            self._undecodable("notification", payload, error)

    def decode_notifications(self, payloads: Sequence[bytes], errors: list[DecodeError]) -> list[N]:
        """The records of those that can be read; why the others cannot is added to `errors`."""
        try:
            return list(map(self._decoders["notification"], payloads))
        except (KeyError, RuntimeError):
            pass  # the first time, or there is one that cannot be read
        records: list[Any] = []
        for payload in payloads:
            try:
                records.append(self.decode_notification(payload))
            except DecodeError as error:
                errors.append(error)
        return records

    def command_error(self, response: Any) -> int:
        """The machine's CommandError, 0 if all is well or the response has none."""
        return response.command_error if self.has_error else 0  # type: ignore[no-any-return]

    def error_texts(self, code: int) -> tuple[str, ...]:
        """What a CommandError means, in the machine's words: every row that shares a bit, then unknown bits."""
        from .backend import records

        listed = getattr(records(), f"{self.snake}_command_error_codes", None)
        rows = listed().values if listed is not None else ()
        unknown = code
        for row in rows:
            unknown &= ~row.code
        texts = [row.description for row in rows if row.code & code]
        return (*texts, f"Unknown (0x{unknown:04X})") if unknown else tuple(texts)

    def settled(self, values: Values) -> Values:
        """The same values, with lists that can be read once only made into tuples, so that they can be sent again."""
        return tuple(
            tuple(value) if kind == "list" and hasattr(value, "__next__") else value
            for kind, value in zip(self.kinds, values, strict=True)
        )

    def with_level(self, values: Values, level: int) -> Values:
        """The same values with another level of notifications, 0 for none."""
        at = self.subscribes
        return values if at < 0 else (*values[:at], level, *values[at + 1 :])

    def address_of(self, values: Values) -> Values:
        """What the notifications that `values` ask for are about. A list gives a tuple of its items' first values."""
        return tuple(
            tuple(map(_first, values[at])) if self.kinds[at] == "list" else values[at] for at in self.address
        )

    def address_in(self, notification: Any) -> Values:
        """What a notification says it is about, in the order of `address`; None for what it does not say."""
        return tuple(_at(notification, path) if path else None for path in self.carried)

    def concerns(self, address: Values, notification: Any) -> bool:
        """Whether a notification is about `address`, as far as it says; None in `address` stands for anything."""
        for asked, told in zip(address, self.address_in(notification), strict=True):
            if asked is None or told is None:
                continue
            if told not in asked if isinstance(asked, tuple) else told != asked:
                return False
        return True

    def echoes(self, values: Values, response: Any) -> bool:
        """False if the response repeats another address than was asked for: it answers another request.

        A refusal may leave what it repeats empty.
        """
        for at, path in self.echoed:
            told = _at(response, path)
            if told is not None and told != values[at] and (told or not self.command_error(response)):
                return False
        return True

    def _decode(self, kind: str, payload: bytes) -> Any:
        """The first time: finds the decoder and keeps it."""
        from .backend import records

        decoder: Callable[[bytes], Any] = getattr(records(), f"decode_{self.snake}_{kind}")
        try:
            return decoder(payload)
        except RuntimeError as error:
            self._undecodable(kind, payload, error)
        finally:
            self._decoders[kind] = decoder

    def _undecodable(self, kind: str, payload: bytes, error: RuntimeError) -> NoReturn:
        from .layouts import locate

        text = str(error).removeprefix("Decode failed: ")
        field, offset, standing = locate(self.name, kind, payload)
        sure = "" if standing == "confirmed" else f"; its layout is {standing}"
        raise DecodeError(
            f"{self.name}: the {kind} cannot be read at {field or 'its start'}, byte {offset} of {len(payload)}: {text}{sure}",
            command=self.name,
            field=field,
            offset=offset,
            payload=payload,
            standing=standing,
        ) from None


def _nothing(_payload: bytes) -> None:
    """The decoder of a response that has no fields."""


_FORMATS: Final[Mapping[str, str]] = {"u8": "B", "u16": "H", "u32": "I", "u64": "Q", "string": ""}


def _at(record: Any, path: Path) -> Any:
    """The value at the end of a path; None where the record holds an alternative without it."""
    for attribute in path:
        record = getattr(record, attribute, None)
    return record


def _first(item: Any) -> Any:
    """An item's first value, in whichever form it was passed."""
    if isinstance(item, tuple | list):
        return item[0]
    if isinstance(item, Mapping):
        return next(iter(item.values()))
    if isinstance(item, str | int):
        return item
    from .layouts import layout_of

    return getattr(item, layout_of(item).fields[0].attribute)
