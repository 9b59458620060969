"""Notifications and machine events as users of threads hold them."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from types import TracebackType
from typing import TYPE_CHECKING, Any, Generic, Self, TypeVar

from .dispatcher import AT_ONCE, Dispatcher
from .errors import Closed, RequestTimeout, VorlinError
from .stream import Stream

if TYPE_CHECKING:
    from .listening import Topic

T = TypeVar("T")


class Inbox(Stream[T]):
    """An iterator over what is delivered; it waits for the next one. Any thread may take, several at once share.

    With a handler it is not iterated over: the handler gets every item, on the dispatcher's thread.
    """

    def __init__(
        self, name: str, buffer: int, handler: Callable[[T], object] | None, dispatcher: Dispatcher
    ) -> None:
        super().__init__(buffer)
        self.name = name
        self._dispatcher = dispatcher
        self._condition = threading.Condition()
        self._handler = handler
        self._attention = handler is not None

    def __iter__(self) -> Self:
        self._check_free()
        return self

    def __next__(self) -> T:
        """The next one. Raises StopIteration when it was ended by the user, and otherwise why it has ended."""
        try:
            return self._items.popleft()
        except IndexError:
            pass
        try:
            return self._take(None)
        except Closed:
            raise StopIteration from None

    def get(self, timeout: float | None = None) -> T:
        """The next one, waiting at most `timeout` seconds. Raises RequestTimeout, Closed when it was ended, and
        otherwise why it has ended."""
        return self._take(timeout)

    def set_handler(self, handler: Callable[[T], object] | None) -> None:
        """From now on `handler` gets every item, those that wait included; None: they are iterated over."""
        self._handler = handler
        self._attention = handler is not None
        if self._attention and self._items:
            self._attention = False
            self._dispatcher.put(self)

    def run_handler(self, dispatcher: Dispatcher) -> None:
        """On the dispatcher's thread: what waits, but no more at once than leaves other handlers their turn."""
        handler, take = self._handler, self._items.popleft
        if handler is None:
            return
        try:
            for _ in range(AT_ONCE):
                if self.cancelled:
                    return
                try:
                    item = take()
                except IndexError:
                    self._attention = True
                    if not self._items:
                        return
                    self._attention = False
                    continue
                handler(item)
        except Exception as error:
            dispatcher.failed(handler, error)
        dispatcher.put(self)

    def inherit(self, error: Exception) -> None:
        """In a child process, where nothing is delivered any more."""
        self._condition = threading.Condition()
        self.end(error)

    def _check_free(self) -> None:
        if self._handler is not None:
            raise VorlinError(f"{self.name} has a handler, which gets everything; it is not iterated over")

    def _take(self, timeout: float | None) -> T:
        self._check_free()
        end = None if timeout is None else time.monotonic() + timeout
        while True:
            try:
                return self._items.popleft()
            except IndexError:
                self._wait(end, timeout)

    def _wait(self, end: float | None, timeout: float | None) -> None:
        with self._condition:
            self._attention = True
            if self._items:
                return
            if self._ended:
                raise self._error or Closed(f"{self.name} has ended")
            left = None if end is None else end - time.monotonic()
            if left is not None and left <= 0:
                raise RequestTimeout(
                    f"{self.name}: nothing came within {timeout:g} s", timeout=timeout or 0.0
                )
            self._condition.wait(left)

    def _wake(self) -> None:
        if self._handler is not None:
            self._dispatcher.put(self)
            return
        with self._condition:
            self._condition.notify_all()


class Subscription(Inbox[T], Generic[T]):
    """Notifications of one command about one object, as records.

    It goes on when the connection was lost and has come back. If the machine refuses it then, iterating raises why.
    Leaving its `with` block, or `cancel`, ends it; so does closing the machine.
    """

    def __init__(
        self,
        name: str,
        buffer: int,
        handler: Callable[[T], object] | None,
        dispatcher: Dispatcher,
        cancel: Callable[[Subscription[Any]], None],
    ) -> None:
        super().__init__(name, buffer, handler, dispatcher)
        self._cancel = cancel
        self.topic: Topic | None = None

    @property
    def response(self) -> Any:
        """The machine's response to the request for these notifications, of the connection that is there now; None
        if they come unasked."""
        return self.topic.response if self.topic is not None else None

    def cancel(self) -> None:
        """Ends it, and tells the machine if nobody else listens to the same. Never raises; may be called in a
        handler."""
        if not self._ended:
            self.end(None)
            self._cancel(self)

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.cancel()
