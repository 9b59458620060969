"""Both faces under one way of writing: a test speaks to a machine that waits, and an awaiting one is made to."""

from __future__ import annotations

import asyncio
import threading
from collections.abc import Callable
from typing import Any

import vorlinkit
import vorlinkit.aio

LONGEST = 20.0
"""Seconds after which a test that waits is told to have failed."""


class Loop:
    """An event loop on a thread of its own."""

    def __init__(self) -> None:
        self.loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self.loop.run_forever, daemon=True)
        self._thread.start()

    def run(self, awaitable: Any) -> Any:
        async def awaited() -> Any:
            return await awaitable

        return asyncio.run_coroutine_threadsafe(awaited(), self.loop).result(LONGEST)

    def call(self, function: Callable[..., Any], *values: Any, **named: Any) -> Any:
        async def called() -> Any:
            return function(*values, **named)

        return self.run(called())

    def end(self) -> None:
        self.loop.call_soon_threadsafe(self.loop.stop)
        self._thread.join(LONGEST)
        self.loop.close()


class Waiting:
    """An object of the asynchronous face, whose methods wait."""

    def __init__(self, loop: Loop, held: Any) -> None:
        self._loop, self._held = loop, held

    def __getattr__(self, name: str) -> Any:
        found = getattr(self._held, name)
        if name in ("subscribe", "events"):
            return Waiting(self._loop, found)
        return self._method(found) if callable(found) else found

    def __enter__(self) -> Any:
        entered = self._loop.run(self._held.__aenter__())
        return self if entered is self._held else Waiting(self._loop, entered)

    def __exit__(self, *raised: Any) -> None:
        self._loop.run(self._held.__aexit__(*raised))

    def __next__(self) -> Any:
        return self._loop.run(self._held.__anext__())

    def _method(self, method: Any) -> Any:
        def waiting(*values: Any, **named: Any) -> Any:
            made = self._loop.call(method, *values, **named)
            if asyncio.iscoroutine(made):
                return self._loop.run(made)
            return Waiting(self._loop, made) if hasattr(made, "__aenter__") else made

        return waiting


class Threads:
    """The face whose calls wait."""

    name = "threads"

    def connect(self, *words: Any, **options: Any) -> Any:
        return vorlinkit.connect(*words, **options)

    def end(self) -> None:
        pass


class Awaits(Threads):
    name = "asyncio"

    def __init__(self) -> None:
        self._loop = Loop()

    def connect(self, *words: Any, **options: Any) -> Any:
        return Waiting(self._loop, self._loop.run(vorlinkit.aio.connect(*words, **options)))

    def end(self) -> None:
        self._loop.end()
