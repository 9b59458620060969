"""The thread on which handlers of users run, so that they may call the machine and take their time."""

from __future__ import annotations

import threading
from collections.abc import Callable
from logging import Logger
from queue import SimpleQueue
from typing import Any, Final, Protocol

ErrorHandler = Callable[[BaseException], object]


class Backlog(Protocol):
    """Something with items that a handler waits for."""

    def run_handler(self, dispatcher: Dispatcher) -> None: ...


class Dispatcher:
    """Owns the thread; it starts with the first item, and ends with `stop`."""

    def __init__(self, name: str, log: Logger) -> None:
        self._name = name
        self._log = log
        self._queue: SimpleQueue[Backlog | None] = SimpleQueue()
        self._start = threading.Lock()
        self._thread: threading.Thread | None = None
        self.on_error: ErrorHandler | None = None

    def put(self, backlog: Backlog) -> None:
        """Any thread."""
        if self._thread is None:
            with self._start:
                if self._thread is None:
                    self._thread = threading.Thread(target=self._run, name=self._name, daemon=True)
                    self._thread.start()
        self._queue.put(backlog)

    def failed(self, handler: Callable[[Any], object], error: Exception) -> None:
        """What a handler raised goes to the log and to `on_error`. Called where it was caught."""
        self._log.exception("a handler failed: %r", handler)
        if self.on_error is None:
            return
        try:
            self.on_error(error)
        except Exception:
            self._log.exception("on_handler_error failed")

    def stop(self) -> None:
        self._queue.put(None)

    def _run(self) -> None:
        while (backlog := self._queue.get()) is not None:
            backlog.run_handler(self)


AT_ONCE: Final = 100
"""How many items of one backlog are handled before another one has its turn."""
