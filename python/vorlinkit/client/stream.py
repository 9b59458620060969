"""What is delivered one by one and taken one by one: a bounded buffer that throws away the oldest, and counts."""

from __future__ import annotations

from collections import deque
from collections.abc import Sequence
from typing import Generic, TypeVar

T = TypeVar("T")


class Stream(Generic[T]):
    """What the subscriptions of both faces share. One thread delivers; it never waits for those who take.

    `cancelled`: its user has ended it, or the machine. `_attention`: somebody wants to be told of the next item. Who takes sets it and then looks again; who delivers adds
    and then looks at it: so nothing is overlooked without a lock.
    """

    def __init__(self, buffer: int) -> None:
        if buffer < 1:
            raise ValueError(f"buffer is the number of notifications to keep, at least 1, not {buffer}")
        self._items: deque[T] = deque()
        self._buffer = buffer
        self._dropped = 0
        self._attention = False
        self._ended = False
        self.cancelled = False
        self._error: Exception | None = None

    @property
    def dropped(self) -> int:
        """How many were thrown away, oldest first, because they were not taken in time."""
        return self._dropped

    @property
    def error(self) -> Exception | None:
        """Why nothing comes any more; None while it does, and if the user has ended it."""
        return self._error

    def deliver(self, items: Sequence[T]) -> None:
        """On the thread or loop that looks after the link."""
        self._items.extend(items)
        if len(self._items) > self._buffer:
            self._drop()
        if self._attention:
            self._attention = False
            self._wake()

    def end(self, error: Exception | None) -> None:
        """Nothing is delivered any more; what is there can still be taken."""
        if not self._ended:
            self._error = error
            self._ended = True
            self.cancelled = error is None
            self._attention = False
            self._wake()

    def _drop(self) -> None:
        try:
            while len(self._items) > self._buffer:
                self._items.popleft()
                self._dropped += 1
        except IndexError:  # taken meanwhile
            pass

    def _wake(self) -> None:
        raise NotImplementedError
