"""From the words of a rule to what goes wrong."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any, Final

from vorlinkit.wire.frames import MajorError, MinorError

from ..answer import LARGEST_PAYLOAD, Ending, Moment, Side
from .misbehaviour import (
    AnnouncedLength,
    Burst,
    Corrupt,
    Delay,
    Duplicate,
    End,
    Freeze,
    Glued,
    Junk,
    Misbehaviour,
    NoAnswer,
    NotCarriedOut,
    Restart,
    ScenarioError,
    SetCommandError,
    SetMajorError,
    SetMinorError,
    ShortPayload,
    Split,
    TakeControl,
    WrongCommandId,
)

CORRUPT_PARTS: Final = ("protocol", "version", "type", "header_length")
ACTIONS: Final = (
    "delay",
    "no_answer",
    "not_carried_out",
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
    "freeze",
    "take_control",
    "restart",
    "burst",
)
"""The names of the misbehaviours in a rule, in the order in which they change an answer."""
MOST_AT_ONCE: Final = 1_000_000
"""How many frames may leave with one answer, other than a burst."""


def build(action: str, value: object, rule: Mapping[str, Any]) -> Misbehaviour:
    """The misbehaviour that a rule names; ``rule`` holds what else the rule says."""
    if action == "delay":
        return Delay(whole_number(action, value, 0))
    if action == "no_answer":
        only_true(action, value)
        return NoAnswer()
    if action == "not_carried_out":
        only_true(action, value)
        return NotCarriedOut()
    if action == "freeze":
        only_true(action, value)
        return Freeze()
    if action == "take_control":
        return TakeControl(_side(value))
    if action == "restart":
        return Restart(0 if value is True else whole_number(action, value, 0))
    if action == "wrong_command_id":
        return WrongCommandId(None if value is True else whole_number(action, value, 0, 0xFFFF))
    if action == "duplicate":
        later = whole_number("later", rule["later"], 0) if "later" in rule else None
        return Duplicate(1 if value is True else whole_number(action, value, 1, MOST_AT_ONCE), later)
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


def _side(value: object) -> Side:
    if value is True or value == "ahead":
        return "ahead"
    if value == "behind":
        return "behind"
    raise ScenarioError(f'take_control is "ahead" or "behind" (the answer), not {value!r}')
