"""The event queue of a link on sockets, for threads that wait and for event loops."""

from __future__ import annotations

import socket
import sys
import threading
import time
from collections import deque
from collections.abc import Callable, Iterable
from typing import Final

from .link import LOG, NOTIFICATION, Event

LIMIT: Final = 65_536
"""How many notifications are kept for whoever takes them, and how many log records."""
_SLICE: Final = 0.1


def acquire(lock: threading.Lock, timeout: float | None) -> bool:
    """Waits for a lock, for at most `timeout` seconds, so that Ctrl-C ends it on every system."""
    if sys.platform != "win32":
        return lock.acquire(timeout=-1 if timeout is None else min(timeout, threading.TIMEOUT_MAX))
    end = None if timeout is None else time.monotonic() + timeout
    while True:  # there a wait for a lock does not hear Ctrl-C
        left = _SLICE if end is None else min(_SLICE, end - time.monotonic())
        if lock.acquire(timeout=max(0.0, left)):
            return True
        if left < _SLICE:
            return False


class Waker:
    """Wakes a thread or event loop that watches `receiver`; any thread may wake."""

    def __init__(self) -> None:
        self.receiver, self._sender = socket.socketpair()
        for end in (self.receiver, self._sender):
            end.setblocking(False)

    def wake(self) -> None:
        try:
            self._sender.send(b"\0")
        except OSError:  # woken often enough already, or closed
            pass

    def drain(self) -> None:
        try:
            while len(self.receiver.recv(4096)) == 4096:
                pass
        except OSError:
            pass

    def close(self) -> None:
        self.receiver.close()
        self._sender.close()

    def __del__(self) -> None:
        self.close()  # its owner has gone without; nobody has to be warned of two ends of nothing


class SocketEvents:
    """The `EventQueue` of a `SocketLink`: its thread puts, one thread or event loop at a time takes."""

    def __init__(self, limit: int = LIMIT) -> None:
        self._limit = limit
        self.start_anew()

    def start_anew(self) -> None:
        """Empty, with nobody waiting: also for a child process, whose locks threads may hold that are not there."""
        self._lock = threading.Lock()
        self._events: deque[Event] = deque()
        self._kept = {NOTIFICATION: 0, LOG: 0}
        self._dropped = 0
        self._woken = False
        self._waiter: threading.Lock | None = None
        self._waker: Waker | None = None
        self._call: Callable[[], None] | None = None

    def put(self, events: Iterable[Event]) -> None:
        """Any thread; they stay together and in order."""
        with self._lock:
            was_empty = not self._events
            for event in events:
                self._events.append(event)
                if event[0] in self._kept:
                    self._count(event[0])
            if was_empty and self._events:
                self._tell()

    def take(self) -> list[Event]:
        with self._lock:
            return self._take()

    def wait(self, timeout: float | None) -> list[Event]:
        with self._lock:
            if self._events or self._woken:
                return self._take()
            waiter = self._waiter = threading.Lock()
            waiter.acquire()
        acquire(waiter, timeout)
        return self.take()

    def wake(self) -> None:
        with self._lock:
            self._woken = True
            self._release()

    def fileno(self) -> int:
        """The end of a pair of sockets, made when it is first asked for."""
        with self._lock:
            if self._waker is None:
                self._waker = Waker()
                if self._events:
                    self._waker.wake()
            return self._waker.receiver.fileno()

    def set_wake(self, callback: Callable[[], None] | None) -> None:
        with self._lock:
            self._call = callback
            if callback is not None and self._events:
                callback()

    def dropped(self) -> int:
        return self._dropped

    def _take(self) -> list[Event]:
        self._woken = False
        self._waiter = None
        if not self._events:
            return []
        taken, self._events = list(self._events), deque()
        self._kept = dict.fromkeys(self._kept, 0)
        if self._waker is not None:
            self._waker.drain()
        return taken

    def _count(self, kind: int) -> None:
        self._kept[kind] += 1
        if self._kept[kind] <= self._limit:
            return
        self._kept[kind] -= 1
        self._dropped += kind == NOTIFICATION
        for at, event in enumerate(self._events):
            if event[0] == kind:
                del self._events[at]
                return

    def _tell(self) -> None:
        self._release()
        if self._waker is not None:
            self._waker.wake()
        if self._call is not None:
            self._call()

    def _release(self) -> None:
        if self._waiter is not None:
            self._waiter.release()
            self._waiter = None
