"""Every way in which an answer can be made to go wrong: small objects that change the plan of it."""

from __future__ import annotations

from dataclasses import dataclass, replace
from itertools import chain
from typing import Protocol

from vorlinkit.wire import frames

from ..answer import Answer, Ending, Moment, Side


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
class NotCarriedOut:
    """The request changes nothing, however it is answered."""

    def apply(self, answer: Answer) -> Answer:
        return answer


@dataclass(frozen=True)
class Duplicate:
    """The answer is sent this many times more, at once or so many milliseconds later."""

    extra: int
    later: float | None

    def apply(self, answer: Answer) -> Answer:
        if self.later is None:
            return replace(answer, copies=answer.copies + self.extra)
        return replace(answer, later=(*answer.later, (self.later / 1000, self.extra)))


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
class Freeze:
    """From this request on nothing is carried out or sent on this connection, which stays open."""

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, frozen=True)


@dataclass(frozen=True)
class TakeControl:
    """Another client forces control away, ahead of the answer or behind it; whoever loses it is told."""

    side: Side

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, control_taken=self.side)


@dataclass(frozen=True)
class Restart:
    """Instead of answering, the machine loses all connections and cannot be reached for so many milliseconds."""

    milliseconds: float

    def apply(self, answer: Answer) -> Answer:
        return replace(answer, restart=self.milliseconds / 1000, silent=True)


@dataclass(frozen=True)
class Burst:
    """Notifications that nobody asked for come behind the answer, of a command and a payload size."""

    count: int
    command: int | None
    size: int | None

    def apply(self, answer: Answer) -> Answer:
        made = answer.make_notifications(self.command, self.count, self.size)
        return replace(answer, burst=chain(answer.burst, made), burst_count=answer.burst_count + self.count)


def leaves_undone(action: Misbehaviour, has_command_error: bool) -> bool:
    """Whether a request that this happens to is not carried out: what is refused, too, changes nothing.

    ``has_command_error``: whether its answer can say so.
    """
    if isinstance(action, SetCommandError):
        return has_command_error and action.bits != 0
    return isinstance(action, (NotCarriedOut, SetMajorError, Freeze))
