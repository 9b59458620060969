"""What is known of one machine and its connection, and what follows from that.

No sockets, threads or event loops: a face carries the decisions out (`actions`), one at a time, and tells of what
happens. `Conversation` holds what they share; the decisions themselves are `calls`, `subscribing`, `controlling` and
`handshake`.
"""

from __future__ import annotations

import logging
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from typing import Final, Literal

from .control import Control
from .errors import Closed, MachineWarning, VorlinError
from .failures import warning
from .late_answers import LateAnswers
from .listening import Topics

LateAnswerPolicy = Literal["fence", "reconnect", "ignore"]


@dataclass(frozen=True)
class Lost:
    """The connection is gone; `reason` is the core's own text, or why the client gave the connection up."""

    reason: str


@dataclass(frozen=True)
class Restored:
    """The connection is back, and calls go out again.

    `renewed`: the subscriptions that the machine accepted anew. `failed`: those that it did not, with the reason; they
    have ended. `away`: seconds since the loss.
    """

    renewed: tuple[str, ...] = ()
    failed: Mapping[str, VorlinError] = field(default_factory=dict)
    away: float = 0.0


MachineEvent = Lost | Restored


@dataclass(frozen=True)
class Options:
    """How a machine object behaves; times in seconds. The words are those of `connect`."""

    host: str
    port: int = 50713
    timeout: float = 15.0
    client_id: bool = True
    reconnect: bool = True
    retry_reads: int = 1
    late_answers: LateAnswerPolicy = "fence"
    idle_check: float = 10.0


class Conversation:
    """`up`: the number of the connection that is there, `ready`: the same when its handshake is done, else 0.

    `clear`: the connection on which a call may go out with no further thought, 0 if it has to be thought about. Faces read it without a lock: the link refuses a request whose connection is no longer there. `version`
    counts the changes that somebody may wait for, and `changed` is called after each. `tell` passes on a `MachineEvent`.
    `answers` counts what the machine has answered, for the idle check.
    """

    def __init__(
        self,
        options: Options,
        clock: Callable[[], float],
        changed: Callable[[], None],
        tell: Callable[[MachineEvent], None],
    ) -> None:
        self.options: Final = options
        self.host: Final = options.host
        self.clock: Final = clock
        self.log: Final = logging.getLogger(f"vorlinkit.{options.host}")
        self.late: Final = LateAnswers()
        self.control: Final = Control()
        self.topics: Final = Topics()
        self.up = 0
        self.ready = 0
        self.version = 0
        self.answers = 0
        self.failed = ""
        self.closed = ""
        self.clear = 0
        self.last_warning: MachineWarning | None = None
        self._changed = changed
        self._tell = tell
        self._known = False
        self._lost_at = 0.0
        self._silent_since: float | None = None

    # --- the connection ---------------------------------------------------------------------------

    def connected(self, connection: int) -> None:
        """A connection is up; what follows is its handshake."""
        self.up = connection
        self.late.forget()
        self._silent_since = None

    def lost(self, reason: str) -> None:
        """The connection is gone, or given up."""
        if not self.up or self.closed:
            return
        self.up = 0
        self.gone(reason)
        if not self._known:
            self.failed = reason
        else:
            self._lost_at = self.clock()
            self.log.warning("connection to %s lost: %s", self.host, reason)
            self._tell(Lost(reason))
        self.update()

    def gone(self, reason: str) -> None:
        """An outcome has shown that the connection of the moment is gone, maybe before the link says so."""
        self.ready = 0
        self.control.lose(f"the connection was lost: {reason}")
        self.update()

    def restored(self, renewed: list[str], failed: dict[str, VorlinError]) -> None:
        """The handshake is done."""
        self.ready = self.up
        if self._known:
            away = self.clock() - self._lost_at
            self.log.warning("connection to %s is back after %.1f s", self.host, away)
            self._tell(Restored(tuple(renewed), failed, away))
        self._known = True
        self.update()

    @property
    def was_ready(self) -> bool:
        """Whether a handshake was ever done."""
        return self._known

    def fail(self, reason: str) -> None:
        """The first connection cannot be used."""
        self.failed = reason
        self.update()

    def close(self, reason: str) -> None:
        """Nothing can be asked any more."""
        self.closed = reason
        self.ready = self.up = 0
        self.topics.end(None)
        self.update()

    def update(self) -> None:
        """Something has changed that stands in a call's way, or no longer does."""
        self.clear = 0 if self.late or self.control.blocks else self.ready
        self.version += 1
        self._changed()

    # --- what calls find --------------------------------------------------------------------------

    def check_open(self, command: str) -> None:
        if self.closed:
            raise Closed(f"{command} was not sent to {self.host}: {self.closed}", command=command)

    def doubt(self, command_id: int) -> None:
        """A request ended without its answer, which may still come."""
        if self._silent_since is None:
            self._silent_since = self.clock()
        if self.options.late_answers != "ignore":
            self.late.note(command_id)
            self.update()

    def answered(self) -> None:
        """The machine has answered something."""
        self.answers += 1
        self._silent_since = None

    def silence(self) -> float:
        """For how many seconds it has answered nothing, though asked."""
        return 0.0 if self._silent_since is None else self.clock() - self._silent_since

    def warn(self, command: str, minor: int) -> None:
        text = warning(command, self.host, minor)
        self.last_warning = MachineWarning(text)
        self.log.warning("%s", text)
