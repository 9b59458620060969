"""Notifications and machine events as users of asyncio hold them."""

from __future__ import annotations

import asyncio
import inspect
from collections.abc import Callable, Coroutine, Generator
from logging import Logger
from types import TracebackType
from typing import Any, Generic, Self, TypeVar

from vorlinkit.client.errors import Closed, RequestTimeout, VorlinError
from vorlinkit.client.listening import Topic
from vorlinkit.client.stream import Stream

T = TypeVar("T")
ErrorHandler = Callable[[BaseException], object]


class Handlers:
    """The tasks that run handlers of users, one for each subscription that has a handler."""

    def __init__(self, loop: asyncio.AbstractEventLoop, log: Logger) -> None:
        self._loop = loop
        self._log = log
        self._tasks: set[asyncio.Task[None]] = set()
        self.on_error: ErrorHandler | None = None

    def start(self, run: Coroutine[Any, Any, None]) -> None:
        task = self._loop.create_task(run)
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def call(self, handler: Callable[[Any], object], item: Any) -> None:
        """One call, of a function or a coroutine function; what it raises goes to the log and to `on_error`."""
        try:
            result = handler(item)
            if inspect.isawaitable(result):
                await result
        except Exception as error:
            self._log.exception("a handler failed: %r", handler)
            self._report(error)

    def stop(self) -> None:
        """A handler that closes the machine goes on to its end."""
        current = asyncio.current_task()
        for task in list(self._tasks):
            if task is not current:
                task.cancel()

    def _report(self, error: Exception) -> None:
        if self.on_error is None:
            return
        try:
            self.on_error(error)
        except Exception:
            self._log.exception("on_handler_error failed")


class Inbox(Stream[T]):
    """An asynchronous iterator over what is delivered; it waits for the next one. Several tasks may share it.

    With a handler it is not iterated over: the handler gets every item, in a task of its own, and may be a coroutine
    function. It may call the machine.
    """

    def __init__(
        self, name: str, buffer: int, handler: Callable[[T], object] | None, handlers: Handlers
    ) -> None:
        super().__init__(buffer)
        self.name = name
        self._handlers = handlers
        self._waiting: list[asyncio.Future[None]] = []
        self._handler: Callable[[T], object] | None = None
        self.set_handler(handler)

    def __aiter__(self) -> Self:
        return self

    async def __anext__(self) -> T:
        """The next one. Raises StopAsyncIteration when it was ended by the user, and otherwise why it has ended."""
        self._check_free()
        try:
            return await self._take()
        except Closed:
            raise StopAsyncIteration from None

    async def get(self, timeout: float | None = None) -> T:
        """The next one, waiting at most `timeout` seconds. Raises RequestTimeout, Closed when it was ended, and
        otherwise why it has ended."""
        self._check_free()
        try:
            async with asyncio.timeout(timeout):
                return await self._take()
        except RequestTimeout:
            raise
        except TimeoutError:
            raise RequestTimeout(
                f"{self.name}: nothing came within {timeout:g} s", timeout=timeout or 0.0
            ) from None

    def set_handler(self, handler: Callable[[T], object] | None) -> None:
        """From now on `handler` gets every item, those that wait included. It can be set once."""
        if self._handler is not None and handler is not self._handler:
            raise VorlinError(f"{self.name} has a handler already")
        if handler is not None and self._handler is None:
            self._handler = handler
            self._handlers.start(self._run_handler(handler))

    def _check_free(self) -> None:
        if self._handler is not None:
            raise VorlinError(f"{self.name} has a handler, which gets everything; it is not iterated over")

    async def _take(self) -> T:
        while True:
            try:
                return self._items.popleft()
            except IndexError:
                await self._wait()

    async def _wait(self) -> None:
        if self._ended:
            raise self._error or Closed(f"{self.name} has ended")
        item: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._waiting.append(item)
        self._attention = True
        await item

    def _wake(self) -> None:
        waiting, self._waiting = self._waiting, []
        for item in waiting:
            if not item.done():
                item.set_result(None)

    async def _run_handler(self, handler: Callable[[T], object]) -> None:
        while not self._ended or self._error is not None:
            try:
                item = await self._take()
            except Exception:  # it has ended; its subscriber was told in the log
                return
            await self._handlers.call(handler, item)


class Subscription(Inbox[T], Generic[T]):
    """Notifications of one command about one object, as records.

    The machine is asked for them when its `async with` block is entered, or by `await`. It goes on when the connection
    was lost and has come back; if the machine refuses it then, iterating raises why. Leaving the block, or `cancel`,
    ends it; so does closing the machine.
    """

    def __init__(
        self,
        name: str,
        buffer: int,
        handler: Callable[[T], object] | None,
        handlers: Handlers,
        start: Callable[[Subscription[Any]], Coroutine[Any, Any, Topic]],
        cancel: Callable[[Subscription[Any]], Coroutine[Any, Any, None]],
    ) -> None:
        super().__init__(name, buffer, None, handlers)
        self._wanted_handler = handler
        self._start = start
        self._cancel = cancel
        self.topic: Topic | None = None

    @property
    def response(self) -> Any:
        """The machine's response to the request for these notifications, of the connection that is there now; None
        if they come unasked."""
        return self.topic.response if self.topic is not None else None

    async def cancel(self) -> None:
        """Ends it, and tells the machine if nobody else listens to the same. May be called in a handler."""
        if not self._ended:
            self.end(None)
            await self._cancel(self)

    def __await__(self) -> Generator[Any, None, Self]:
        return self._begin().__await__()

    async def __aenter__(self) -> Self:
        return await self._begin()

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        await self.cancel()

    async def _begin(self) -> Self:
        if self.topic is None:
            self.topic = await self._start(self)
            self.set_handler(self._wanted_handler)
        return self
