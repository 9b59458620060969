"""What an answer of the simulator is before it leaves.

An Answer is a plan: nothing has been sent yet. The machine makes it, misbehaviours change it, and the
connection carries it out. So what goes wrong is decided in one place and can be tested without a socket.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from typing import Final, Literal

from vorlinkit.wire import frames

Ending = Literal["half-close", "reset", "close"]
Moment = Literal["instead", "middle", "after"]
Side = Literal["ahead", "behind"]

LARGEST_PAYLOAD: Final = 1 << 28
"""How many bytes one frame may hold."""

NotificationMaker = Callable[[int | None, int, int | None], Iterable[bytes]]
"""Makes notification frames: of which command (None: the one that is answered), how many, of which payload
size.
"""


@dataclass(frozen=True)
class Answer:
    """What a request is going to be answered with, and how it is going to leave.

    ``later``: after how many seconds how many more copies leave. ``restart``: how many seconds the machine is
    away.
    """

    command_id: int
    payload: bytes = b""
    major_error: int = 0
    minor_error: int = 0
    announced: int | None = None
    delay: float = 0.0
    copies: int = 1
    later: tuple[tuple[float, int], ...] = ()
    chunk: int | None = None
    together: bool = False
    ahead: tuple[bytes, ...] = ()
    behind: tuple[bytes, ...] = ()
    burst: Iterable[bytes] = ()
    burst_count: int = 0
    frame: bytes | None = None
    ending: tuple[Ending, Moment] | None = None
    silent: bool = False
    frozen: bool = False
    control_taken: Side | None = None
    restart: float | None = None
    has_command_error: bool = False
    make_notifications: NotificationMaker = field(default=lambda command, count, size: (), repr=False)

    def response(self) -> bytes:
        """The response frame as it leaves, once."""
        if self.frame is not None:
            return self.frame
        return frames.response(
            self.command_id, self.payload, self.major_error, self.minor_error, self.announced
        )
