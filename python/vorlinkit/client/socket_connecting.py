"""The life of a link's connection: decisions only, no sockets, threads or clock."""

from __future__ import annotations

import random
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from enum import Enum, auto
from typing import Any, Final

Address = tuple[int, Any]
"""An address family, and what `socket.connect` takes of it."""

ENDED: Final = "Operation canceled"
"""What those are told whose attempt or connection somebody has ended on purpose."""


class State(Enum):
    IDLE = auto()  # nothing is under way; a re-connect may be scheduled
    LOOKING_UP = auto()
    CONNECTING = auto()  # to one address after the other
    CONNECTED = auto()
    CLOSED = auto()  # until `connect`


@dataclass(slots=True)
class Decision:
    """What to do, in the order of its members."""

    cancel_reconnect: bool = False
    attempt_failed: str | None = None  # end it, report it, tell the caller
    timed_out: bool = False  # which is why it failed
    lost: str | None = None  # close the connection, report it
    reconnect_in: float | None = None
    look_up: bool = False  # a new attempt: start its deadline, and the look-up
    connect_to: Address | None = None
    connected: bool = False  # report it, start to read


class Connecting:
    """Decides what becomes of attempts and connections, and when another attempt follows.

    Each attempt has a number, which its connection keeps. `delay` and `delay_max` (seconds): the wait before a
    re-connect doubles with each failure, less a random part of at most half; with a `delay_max` of 0 it is fixed. A
    `delay` of None: there are no re-connects. The link's thread tells it of events, with the link's lock.
    """

    def __init__(
        self, delay: float | None, delay_max: float = 0.0, chance: Callable[[], float] = random.random
    ) -> None:
        self.state = State.IDLE
        self.number = 0
        self._delay = delay
        self._delay_max = delay_max
        self._chance = chance
        self._failures = 0
        self._addresses: list[Address] = []

    def connect(self) -> Decision:
        # An attempt or a connection that is given up counts as any failure: it is followed by another.
        decision = self._end()
        self._failures = 0
        if decision.attempt_failed is not None or decision.lost is not None:
            decision.reconnect_in = self._wait()
        self._start(decision)
        return decision

    def reconnect_due(self) -> Decision:
        decision = Decision()
        if self.state is State.IDLE:
            self._start(decision)
        return decision

    def close(self) -> Decision:
        decision = self._end()
        decision.cancel_reconnect = True
        self.state = State.CLOSED
        return decision

    def looked_up(self, addresses: Sequence[Address], failure: str) -> Decision:
        if not addresses:
            return self._attempt_failed(failure)
        self.state = State.CONNECTING
        self._addresses = list(addresses)
        return Decision(connect_to=self._addresses.pop(0))

    def connect_ended(self, failure: str | None) -> Decision:
        """With the address that was last decided on; None: it is connected."""
        if failure is None:
            self.state = State.CONNECTED
            self._failures = 0
            return Decision(cancel_reconnect=True, connected=True)
        if self._addresses:
            return Decision(connect_to=self._addresses.pop(0))
        return self._attempt_failed(failure)

    def deadline_passed(self) -> Decision:
        decision = self._attempt_failed("Connection timeout")
        decision.timed_out = True
        return decision

    def connection_failed(self, reason: str) -> Decision:
        self.state = State.IDLE
        return Decision(lost=reason, reconnect_in=self._wait())

    def _end(self) -> Decision:
        decision = Decision()
        if self.state in (State.LOOKING_UP, State.CONNECTING):
            decision.attempt_failed = ENDED
        if self.state is State.CONNECTED:
            decision.lost = ENDED
        self.state = State.IDLE
        return decision

    def _start(self, decision: Decision) -> None:
        self.number += 1
        self.state = State.LOOKING_UP
        decision.look_up = True

    def _attempt_failed(self, reason: str) -> Decision:
        self.state = State.IDLE
        return Decision(attempt_failed=reason, reconnect_in=self._wait())

    def _wait(self) -> float | None:
        if self._delay is None or self._delay_max <= 0:
            return self._delay
        # The exponent is bounded so that the power stays a float.
        longest = min(self._delay * 2.0 ** min(self._failures, 64), self._delay_max)
        self._failures += 1
        return longest * (1 - self._chance() / 2)


class StallWatch:
    """Decides when a peer that is being written to takes nothing any more; times in seconds."""

    def __init__(self, limit: float) -> None:
        self.limit = limit
        self._pending = 0
        self._progress = 0.0

    def start(self, now: float, pending: int) -> float:
        """`pending`: the bytes that the peer has not acknowledged yet. Gives when to look."""
        self._pending, self._progress = pending, now
        return self._next_look(now)

    def look(self, now: float, pending: int) -> float | None:
        """Gives when to look again; None when the peer has taken nothing for as long as the limit says."""
        if pending < self._pending:
            self._progress = now
        self._pending = pending
        return None if self._progress + self.limit <= now else self._next_look(now)

    def _next_look(self, now: float) -> float:
        return min(self._progress + self.limit, now + self.limit / 8)
