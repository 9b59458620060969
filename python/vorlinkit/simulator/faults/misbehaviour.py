"""Every way in which an answer can be made to go wrong: small objects that change the plan of it."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, replace
from itertools import chain
from typing import Any, Final, Protocol

from vorlinkit.wire import frames
from vorlinkit.wire.frames import MajorError, MinorError

from ..answer import Answer, Ending, Moment


class Misbehaviour(Protocol):
    """One way to go wrong."""

    def apply(self, answer: Answer) -> Answer:
        """The plan, changed."""


class ScenarioError(Exception):
    """A rule cannot be understood; the text says which and why."""


@dataclass(frozen=True)
class Delay:
    """The answer comes this many milliseconds late; notifications go on meanwhile."""

    milliseconds: float

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, delay=answer.delay + self.milliseconds / 1000)


@dataclass(frozen=True)
class NoAnswer:
    """The request is read and carried out, and never answered."""

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, silent=True)


@dataclass(frozen=True)
class WrongCommandId:
    """The answer carries another command id."""

    command_id: int | None

    def apply(self, answer: Answer) -> Answer:
        other = (answer.command_id + 1) & 0xFFFF if self.command_id is None else self.command_id
        return replace(answer, command_id=other)


@dataclass(frozen=True)
class Duplicate:
    """The answer is sent this many times more."""

    extra: int

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, copies=answer.copies + self.extra)


@dataclass(frozen=True)
class SetMajorError:
    """The answer refuses the request at the protocol level."""

    flags: int

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, major_error=answer.major_error | self.flags)


@dataclass(frozen=True)
class SetMinorError:
    """The answer carries protocol warnings."""

    flags: int

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, minor_error=answer.minor_error | self.flags)


@dataclass(frozen=True)
class SetCommandError:
    """The answer carries these command error bits; nothing happens to an answer that has no CommandError."""

    bits: int

    def apply(self, answer: Answer) -> Answer:
        if not answer.has_command_error:
            return answer
        return replace(answer, payload=self.bits.to_bytes(2, "big") + answer.payload[2:])


@dataclass(frozen=True)
class Split:
    """Everything leaves in pieces of this many bytes, each in a write of its own."""

    size: int

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, chunk=self.size)


@dataclass(frozen=True)
class Glued:
    """This many notifications and the answer leave in one write."""

    notifications: int

    def apply(self, answer: Answer) -> Answer:
        made = tuple(answer.make_notifications(None, self.notifications, None))
        return replace(answer, ahead=answer.ahead + made, together=True)


@dataclass(frozen=True)
class Junk:
    """Bytes that are no frame come ahead of the answer."""

    content: bytes

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, ahead=(*answer.ahead, self.content))


@dataclass(frozen=True)
class ShortPayload:
    """The payload lacks its last bytes; the length in the header fits what is sent."""

    missing: int

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, payload=answer.payload[: max(0, len(answer.payload) - self.missing)])


@dataclass(frozen=True)
class AnnouncedLength:
    """The header announces more bytes than ever come."""

    extra: int

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, announced=min(len(answer.payload) + self.extra, 0xFFFFFFFF))


@dataclass(frozen=True)
class Corrupt:
    """One part of the answer's header is wrong."""

    part: str

    def apply(self, answer: Answer) -> Answer:
        frame = bytearray(answer.response())
        if self.part == "protocol":
            frame[0:2] = b"XX"
        elif self.part == "version":
            frame[2] = frames.VERSION + 1
        elif self.part == "type":
            frame[3] = 9
        else:
            frame[5] ^= 0xFF
        return replace(answer, frame=bytes(frame))


@dataclass(frozen=True)
class End:
    """The connection ends: sending side shut, closed, or reset; instead of, amid or after the answer."""

    how: Ending
    moment: Moment

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, ending=(self.how, self.moment))


@dataclass(frozen=True)
class Burst:
    """Notifications that nobody asked for come behind the answer, of a command and a payload size."""

    count: int
    command: int | None
    size: int | None

    def apply(self, answer: Answer) -> Answer:
        made = answer.make_notifications(self.command, self.count, self.size)
        return replace(answer, burst=chain(answer.burst, made), burst_count=answer.burst_count + self.count)


CORRUPT_PARTS: Final = ("protocol", "version", "type", "header_length")
ACTIONS: Final = (
    "delay",
    "no_answer",
    "wrong_command_id",
    "duplicate",
    "major_error",
    "minor_error",
    "command_error",
    "split",
    "glued",
    "junk",
    "short_payload",
    "announce",
    "corrupt",
    "half_close",
    "close",
    "reset",
    "burst",
)
"""The names of the misbehaviours in a rule, in the order in which they change an answer."""
MOST_AT_ONCE: Final = 1_000_000
"""How many frames may leave with one answer, other than a burst."""
LARGEST_PAYLOAD: Final = 1 << 28
"""How many bytes one frame may hold."""


def build(action: str, value: object, rule: Mapping[str, Any]) -> Misbehaviour:
    """The misbehaviour that a rule names; ``rule`` holds what else the rule says."""
    if action == "delay":
        return Delay(whole_number(action, value, 0))
    if action == "no_answer":
        only_true(action, value)
        return NoAnswer()
    if action == "wrong_command_id":
        return WrongCommandId(None if value is True else whole_number(action, value, 0, 0xFFFF))
    if action == "duplicate":
        return Duplicate(1 if value is True else whole_number(action, value, 1, MOST_AT_ONCE))
    if action == "major_error":
        return SetMajorError(_flags(action, value, MajorError))
    if action == "minor_error":
        return SetMinorError(_flags(action, value, MinorError))
    if action == "command_error":
        return SetCommandError(whole_number(action, value, 0, 0xFFFF))
    if action == "split":
        return Split(1 if value is True else whole_number(action, value, 1))
    if action == "glued":
        return Glued(1 if value is True else whole_number(action, value, 1, MOST_AT_ONCE))
    if action == "junk":
        return Junk(_junk(value))
    if action == "short_payload":
        return ShortPayload(1 if value is True else whole_number(action, value, 1))
    if action == "announce":
        return AnnouncedLength(1000 if value is True else whole_number(action, value, 1))
    if action == "corrupt":
        if value not in CORRUPT_PARTS:
            raise ScenarioError(f"corrupt is one of {', '.join(CORRUPT_PARTS)}, not {value!r}")
        return Corrupt(str(value))
    if action == "burst":
        return Burst(whole_number(action, value, 0), rule.get("of"), payload_size(rule.get("size")))
    return End(_ENDINGS[action], _moment(action, value))


_ENDINGS: Final[Mapping[str, Ending]] = {"half_close": "half-close", "close": "close", "reset": "reset"}


def only_true(action: str, value: object) -> None:
    if value is not True:
        raise ScenarioError(f"{action} is true or left out, not {value!r}")


def whole_number(name: str, value: object, least: int, most: int = 0xFFFFFFFF) -> int:
    """A number of a rule or of a line of control; raises ScenarioError for anything else."""
    if isinstance(value, bool) or not isinstance(value, int) or not least <= value <= most:
        raise ScenarioError(f"{name} is a whole number from {least} to {most}, not {value!r}")
    return value


def payload_size(value: object) -> int | None:
    return None if value is None else whole_number("size", value, 0, LARGEST_PAYLOAD)


def _flags(action: str, value: object, kind: type[MajorError] | type[MinorError]) -> int:
    names = value if isinstance(value, list) and value else [value]
    flags = 0
    for name in names:
        if isinstance(name, str) and name in kind.__members__:
            flags |= kind[name]
        else:
            flags |= whole_number(f"{action} (a number or one of {', '.join(kind.__members__)})", name, 1)
    return flags


def _junk(value: object) -> bytes:
    if value is True:
        return b"this is no frame"
    if isinstance(value, str):
        try:
            return bytes.fromhex(value.removeprefix("hex:"))
        except ValueError:
            raise ScenarioError(f"junk is a number of bytes or hex:DIGITS, not {value!r}") from None
    count = whole_number("junk", value, 1, LARGEST_PAYLOAD)
    return (b"no frame " * (count // 9 + 1))[:count]


def _moment(action: str, value: object) -> Moment:
    if value is True or value == "instead":
        return "instead"
    if value == "middle":
        return "middle"
    if value == "after":
        return "after"
    raise ScenarioError(f'{action} is "instead", "middle" or "after" (the answer), not {value!r}')
