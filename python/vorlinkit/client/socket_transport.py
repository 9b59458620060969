"""The one TCP connection of a link: connects within a deadline, reads, writes whole frames, re-connects."""

from __future__ import annotations

import errno
import selectors
import socket
import time
from math import inf
from typing import Any, Final, Protocol

from .link import OK, TIMEOUT, TRANSPORT, LinkOptions, Outcome
from .socket_connecting import Address, Connecting, Decision, StallWatch, State
from .socket_system import NameLookup, prepare, text_of, text_of_code, unacknowledged

READ_SIZE: Final = 65_536
READS_IN_A_ROW: Final = 4  # then requests and timers get their turn
LEAST_STALL_LIMIT: Final = 15.0
INFO: Final = 2
WARN: Final = 3
ERR: Final = 4

_UNDER_WAY: Final = (errno.EINPROGRESS, errno.EWOULDBLOCK, errno.EINTR)


class Owner(Protocol):
    """Whom a transport tells, on the link's thread and with the link's lock."""

    def log(self, level: int, text: str) -> None: ...
    def reply(self, token: object, outcome: Outcome) -> None: ...
    def on_state(self, connection: int, reason: str) -> None: ...
    def on_lost(self, text: str) -> None: ...
    def on_chunk(self, chunk: bytes) -> None: ...
    def wake(self) -> None: ...


class Transport:
    """Carries out what `Connecting` decides, and knows nothing of frames.

    The link's thread calls it, with the link's lock; `write` belongs to whoever has that lock.
    """

    def __init__(self, options: LinkOptions, selector: selectors.BaseSelector, owner: Owner) -> None:
        self.connection = 0
        """The number of the connection that is up, 0 for none."""
        self._options = options
        self._selector = selector
        self._owner = owner
        delay = options.reconnect_delay if options.reconnect else None
        self._connecting = Connecting(delay, options.reconnect_delay_max)
        self._lookup = NameLookup(options.host, options.port, owner.wake)
        self._socket: socket.socket | None = None
        self._token: object = None  # of the attempt
        self._connect_deadline = inf
        self._reconnect_at = inf
        self._stall_at = inf
        self._stall = StallWatch(max(LEAST_STALL_LIMIT, options.request_timeout))
        self._outgoing = memoryview(b"")  # what the socket has not taken yet
        self._waits_to_write = False
        self._failure = ""  # of a write

    # --- calls of the link --------------------------------------------------------------------------

    def connect(self, token: object) -> None:
        """Ends what is under way and connects anew."""
        self._carry_out(self._connecting.connect(), token)

    def close(self) -> None:
        """When it returns everything has ended and been reported."""
        self._carry_out(self._connecting.close())

    def write(self, frame: bytearray) -> bool:
        """True when the socket has taken all of it. Else the link's thread goes on with it, or ends the connection."""
        assert self._socket is not None
        try:
            sent = self._socket.send(frame)
        except BlockingIOError:
            sent = 0
        except OSError as error:
            self.break_off(text_of(error))
            return False
        if sent == len(frame):
            return True
        self._outgoing = memoryview(frame)[sent:]
        self._owner.wake()
        return False

    def break_off(self, reason: str) -> None:
        """The connection is of no use any more; the link's thread ends it. For whoever has the lock."""
        self._failure = reason
        self._owner.wake()

    # --- events, on the link's thread -----------------------------------------------------------------

    def ready(self, sock: Any, mask: int) -> bool:
        """What the selector has found; True when what was to be written has left."""
        if sock is not self._socket or sock is None:
            return False  # it was closed meanwhile
        if self._connecting.state is State.CONNECTING:
            self._connect_ended(sock.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR))
            return False
        if mask & selectors.EVENT_READ:
            self._read(READS_IN_A_ROW)
        return bool(mask & selectors.EVENT_WRITE) and self._write_rest()

    def look(self, now: float) -> None:
        """What has become due, or was found on another thread."""
        if self._failure and self.connection:
            self._fail(self._failure)
        if self._connecting.state is State.LOOKING_UP and (found := self._lookup.take()) is not None:
            self._looked_up(*found)
        if self._connect_deadline <= now:
            self._carry_out(self._connecting.deadline_passed())
        if self._reconnect_at <= now:
            self._reconnect_at = inf
            self._carry_out(self._connecting.reconnect_due())
        if self._outgoing:
            self._look_for_stall(now)

    def read_arrived(self) -> None:
        """Reads as much as the system can have kept for us."""
        if self.connection and self._socket is not None:
            kept = self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)
            self._read(1 + kept // READ_SIZE)

    def due(self) -> float:
        """When to `look`, at the latest."""
        return min(self._connect_deadline, self._reconnect_at, self._stall_at)

    # --- decisions ----------------------------------------------------------------------------------

    def _carry_out(self, decision: Decision, token: object = None) -> None:
        if decision.cancel_reconnect:
            self._reconnect_at = inf
        outcome = None
        if decision.attempt_failed is not None:
            outcome = self._attempt_failed(decision.attempt_failed, decision.timed_out)
        if decision.lost is not None:
            self._lost(decision.lost)
        if decision.reconnect_in is not None:
            delay = decision.reconnect_in
            self._owner.log(WARN, f"Scheduling reconnect in {round(delay * 1000)}ms")
            self._reconnect_at = time.monotonic() + delay
        if outcome is not None:
            self._tell_caller(outcome)
        if decision.look_up:
            self._token = token
            self._connect_deadline = time.monotonic() + self._options.connect_timeout
            self._look_up()
        if decision.connect_to is not None:
            self._connect_to(decision.connect_to)
        if decision.connected:
            self._connected()

    def _attempt_failed(self, reason: str, timed_out: bool) -> Outcome:
        self._connect_deadline = inf
        self._close_socket()
        self._owner.log(ERR, f"Connection failed: {reason}")
        self._owner.on_state(0, f"Connection failed: {reason}")
        code = TIMEOUT if timed_out else TRANSPORT
        return Outcome(code, f"Failed to connect: {reason}", b"", 0, 0)

    def _lost(self, reason: str) -> None:
        self._close_socket()
        self._owner.log(WARN, f"Disconnected: {reason}")
        self._owner.on_state(0, f"Disconnected: {reason}")
        self._owner.on_lost(f"Disconnected: {reason}")

    def _close_socket(self) -> None:
        self.connection = 0
        self._failure = ""
        self._outgoing = memoryview(b"")
        self._stall_at = inf
        self._waits_to_write = False
        if self._socket is not None:
            self._selector.unregister(self._socket)
            self._socket.close()
            self._socket = None

    def _tell_caller(self, outcome: Outcome) -> None:
        token, self._token = self._token, None
        if token is not None:
            self._owner.reply(token, outcome)

    # --- attempts -----------------------------------------------------------------------------------

    def _look_up(self) -> None:
        if (found := self._lookup.find()) is not None:
            self._looked_up(*found)

    def _looked_up(self, addresses: list[Address], failure: str) -> None:
        if addresses:
            self._owner.log(INFO, f"Connecting to {self._options.host}:{self._options.port}")
        self._carry_out(self._connecting.looked_up(addresses, failure))

    def _connect_to(self, address: Address) -> None:
        self._close_socket()
        try:
            self._socket = socket.socket(address[0], socket.SOCK_STREAM)
            self._socket.setblocking(False)
            self._selector.register(self._socket, selectors.EVENT_WRITE)
            failure = self._socket.connect_ex(address[1])
        except OSError as error:
            self._carry_out(self._connecting.connect_ended(text_of(error)))
            return
        if failure not in _UNDER_WAY:
            self._connect_ended(failure)

    def _connect_ended(self, failure: int) -> None:
        assert self._socket is not None
        text = text_of_code(failure) if failure else None
        try:
            if text is None and self._socket.getsockname() == self._socket.getpeername():
                text = "Connection refused"  # connected to itself, which a free local port makes possible
        except OSError as error:
            text = text_of(error)
        self._carry_out(self._connecting.connect_ended(text))

    def _connected(self) -> None:
        assert self._socket is not None
        self._connect_deadline = inf
        self.connection = self._connecting.number
        prepare(self._socket, self._stall.limit)
        self._selector.modify(self._socket, selectors.EVENT_READ)
        self._owner.log(INFO, "Connected successfully")
        self._owner.on_state(self.connection, "")
        self._tell_caller(Outcome(OK, "", b"", 0, 0))

    # --- bytes --------------------------------------------------------------------------------------

    def _read(self, times: int) -> None:
        assert self._socket is not None
        for _ in range(times):
            try:
                chunk = self._socket.recv(READ_SIZE)
                if chunk:
                    self._owner.on_chunk(chunk)
            except (BlockingIOError, InterruptedError):
                return
            except OSError as error:
                return self._fail(text_of(error))
            except MemoryError:  # the stream cannot be followed any more
                return self._fail("Cannot allocate memory")
            if not chunk:
                return self._fail("End of file")
            if len(chunk) < READ_SIZE:
                return

    def _write_rest(self) -> bool:
        assert self._socket is not None
        try:
            self._outgoing = self._outgoing[self._socket.send(self._outgoing) :]
        except (BlockingIOError, InterruptedError):
            pass
        except OSError as error:
            self._fail(text_of(error))
            return False
        if self._outgoing:
            return False
        self._stall_at = inf
        self._waits_to_write = False
        self._selector.modify(self._socket, selectors.EVENT_READ)
        return True

    def _look_for_stall(self, now: float) -> None:
        assert self._socket is not None
        pending = len(self._outgoing) + unacknowledged(self._socket)
        if not self._waits_to_write:
            self._waits_to_write = True
            self._selector.modify(self._socket, selectors.EVENT_READ | selectors.EVENT_WRITE)
            self._stall_at = self._stall.start(now, pending)
        elif self._stall_at <= now:
            again = self._stall.look(now, pending)
            if again is None:
                return self._fail("Connection timed out")
            self._stall_at = again

    def _fail(self, reason: str) -> None:
        self._carry_out(self._connecting.connection_failed(reason))
