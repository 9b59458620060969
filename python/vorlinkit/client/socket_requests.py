"""What becomes of a request on a link: decisions only, no sockets, threads or clock."""

from __future__ import annotations

import threading
from collections import deque
from dataclasses import dataclass
from math import inf
from typing import Final, NamedTuple

from vorlinkit.wire import frames
from vorlinkit.wire.assembler import Frame

from .link import OK, PROTOCOL, TIMEOUT, Outcome

GET_CLIENT_ID: Final = 1


@dataclass(slots=True, eq=False)
class Request:
    """One request on its way to an outcome; whoever made it waits for `done` or for the event with `token`."""

    command_id: int
    frame: bytearray
    timeout: float
    token: object = None
    done: threading.Lock | None = None
    outcome: Outcome | None = None


class Reception(NamedTuple):
    """What a response meant: `expected` by a request, `text` of a refusal or warning, the client id it brought."""

    expected: bool
    text: str = ""
    client_id: int | None = None


class Requests:
    """Sends requests one at a time, matches responses to them, decides on time-outs and outcomes.

    The link tells it of events and carries out what `next` says; the link's lock guards it.
    """

    def __init__(self) -> None:
        self.deadline = inf
        """When to say `timed_out`."""
        self._queue: deque[Request] = deque()
        self._active: Request | None = None
        self._outcome: Outcome | None = None
        self._writing = False  # a frame; its request may be over
        self._finished: list[Request] = []

    # --- events -----------------------------------------------------------------------------------

    def submit(self, request: Request) -> None:
        self._queue.append(request)

    def written(self, now: float) -> None:
        """The frame that `next` gave has left, whole."""
        self._writing = False
        if self._outcome is not None:
            self._finish(self._outcome)
        elif self._active is not None:
            self.deadline = now + self._active.timeout

    def response(self, frame: Frame) -> Reception:
        active = self._active
        if active is None or active.command_id != frame.command_id:
            return Reception(False)
        if frame.major:
            text = "VORLIN protocol error (majorError): " + frames.flags_text(frame.major, frames.MajorError)
            self._finish(Outcome(PROTOCOL, text, b"", frame.major, frame.minor))
            return Reception(True, text)
        if self._outcome is None:
            # Kept until the chunk is through, so that a second answer in it does not meet the next request.
            self._outcome = Outcome(OK, "", frame.payload, 0, frame.minor)
            self.deadline = inf
        text = ""
        if frame.minor:
            text = "VORLIN protocol warning (minorError): " + frames.flags_text(
                frame.minor, frames.MinorError
            )
        learned = frame.command_id == GET_CLIENT_ID and len(frame.payload) == 1
        return Reception(True, text, frame.payload[0] if learned else None)

    def fault(self, text: str) -> None:
        """The stream can no longer be cut into frames."""
        if self._active is not None:
            self._finish(Outcome(PROTOCOL, text, b"", 0, 0))

    def timed_out(self) -> None:
        """The deadline is over, and what has arrived has been read."""
        if self._active is not None and self._outcome is None:
            text = f"Request timeout for commandId={self._active.command_id} after 1 attempt(s)"
            self._finish(Outcome(TIMEOUT, text, b"", 0, 0))

    def lost(self, code: int, text: str) -> None:
        """The connection is gone: everything that waits fails, and nothing of it is sent later."""
        self._writing = False
        outcome = Outcome(code, text, b"", 0, 0)
        self._finish(outcome)
        while self._queue:
            self._active = self._queue.popleft()
            self._finish(outcome)

    # --- what to do -------------------------------------------------------------------------------

    def next(self) -> Request | None:
        """The request to write now, answered by `written` or `lost`."""
        if self._outcome is not None and not self._writing:
            self._finish(self._outcome)
        if self._active is not None or self._writing or not self._queue:
            return None
        self._active = self._queue.popleft()
        self._writing = True
        return self._active

    def take_finished(self) -> list[Request]:
        """Those whose outcome is to be told."""
        finished = self._finished
        if finished:
            self._finished = []
        return finished

    def _finish(self, outcome: Outcome) -> None:
        active, self._active, self._outcome, self.deadline = self._active, None, None, inf
        if active is not None:
            active.outcome = outcome
            self._finished.append(active)
