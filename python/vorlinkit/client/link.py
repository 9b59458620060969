"""What the client needs of a connection: the form that the compiled session and the one on sockets share.

A link sends, receives and re-connects by itself, on a thread of its own, and decides nothing else. All that it has to
tell comes out of its event queue, in the order in which it happened; no code of a user ever runs on its thread.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import Any, Final, NamedTuple, Protocol

OK: Final = 0
TRANSPORT: Final = 1
TIMEOUT: Final = 2
PROTOCOL: Final = 3
DECODE: Final = 4
ENCODE: Final = 5
STOPPED: Final = 6

REPLY: Final = 0
STATE: Final = 1
NOTIFICATION: Final = 2
LOG: Final = 3


class Outcome(NamedTuple):
    """How a request ended. `code`: OK or one of the core's error codes; `text`: the core's own words."""

    code: int
    text: str
    payload: bytes
    major: int
    minor: int


# Events are plain tuples, told apart by their first member:
#   (REPLY, token, outcome)                 to `send`, `connect` or `disconnect`; exactly one for each token. The outcome
#                                           is a tuple in the order of `Outcome`
#   (STATE, connection, reason)             `connection`: the number of the connection that is up now, 0 for none; each
#                                           new connection has a higher number. `reason`: "" when connected
#   (NOTIFICATION, command_id, payloads)    of a command that is watched: a list of those that came in a row
#   (LOG, level, file, line, function, text, time)   level: the core's, trace 0 to critical 5; time: seconds since 1970
Event = tuple[Any, ...]


class EventQueue(Protocol):
    """From the link's thread to whoever looks after it. Any thread may call it; one at a time takes events."""

    def take(self) -> list[Event]:
        """Everything that is there, without waiting."""

    def wait(self, timeout: float | None) -> list[Event]:
        """The same, but waits until there is something, for at most `timeout` seconds; [] after that or `wake`."""

    def wake(self) -> None:
        """Ends a `wait`, now or the next one."""

    def fileno(self) -> int:
        """A descriptor that is readable while there are events, for an event loop to watch."""

    def dropped(self) -> int:
        """Notifications that were thrown away, oldest first, because nobody took them."""


class CallingEventQueue(EventQueue, Protocol):
    """A queue that can do without a descriptor, too. The link on sockets has one, the compiled session has not."""

    def set_wake(self, callback: Callable[[], None] | None) -> None:
        """For event loops that cannot watch descriptors: `callback` is called, on any thread, when there are events
        after there were none. It must neither block nor raise; a loop's `call_soon_threadsafe` is fine."""


@dataclass(frozen=True)
class LinkOptions:
    """Times in seconds. Re-connects wait `reconnect_delay`, twice as long each time up to `reconnect_delay_max`, and
    within that a random part, so that many clients of a machine do not come back at once."""

    host: str
    port: int = 50713
    connect_timeout: float = 3.0
    request_timeout: float = 15.0
    reconnect_delay: float = 0.5
    reconnect_delay_max: float = 30.0
    reconnect: bool = True
    log_level: int = 3


class Link(Protocol):
    """One connection at a time to one machine. Any thread may call any method."""

    @property
    def events(self) -> EventQueue: ...
    def connect(self, token: object) -> None:
        """Gives up a connection or attempt that is under way and starts anew. Its REPLY follows; re-connects after a
        loss come as STATE alone."""

    def disconnect(self, token: object) -> None:
        """Closes and ends re-connecting. Its REPLY is the last event of the link but for replies to later calls."""

    def request(
        self, command_id: int, payload: bytes, timeout: float, connection: int
    ) -> Outcome | tuple[Any, ...]:
        """Sends and waits. Never goes out on another connection than number `connection`: if that is gone, the outcome
        is TRANSPORT. `timeout`: seconds from the write; 0 for the link's own. A tuple in the order of `Outcome`."""

    def send(self, command_id: int, payload: bytes, timeout: float, connection: int, token: object) -> None:
        """The same without waiting: the REPLY event with `token` follows."""

    def watch(self, command_id: int) -> None:
        """From now on notifications of this command are events; others are thrown away."""

    def set_log_level(self, level: int) -> None:
        """LOG events below this level are not made."""

    def client_id(self) -> int:
        """The id that the machine gave this connection, 0 while unknown."""

    def close(self) -> None:
        """Ends the link's thread and frees what it holds. Waiting calls end with STOPPED."""
