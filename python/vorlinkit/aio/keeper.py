"""What runs behind a `Machine`: the link, its events on the loop, and the decisions."""

from __future__ import annotations

import asyncio
import logging
import os
import threading
import time
import weakref
from collections.abc import Callable
from dataclasses import replace
from functools import partial
from typing import Any, Final, TypeVar

from vorlinkit.client import link as links
from vorlinkit.client.actions import Ask, AwaitChange, Connect, Steps
from vorlinkit.client.attendant import Attendant
from vorlinkit.client.calls import settle
from vorlinkit.client.conversation import Conversation, MachineEvent, Options
from vorlinkit.client.link import Link, LinkOptions
from vorlinkit.client.log import core_level

from .slots import Slots
from .subscription import Handlers, Inbox

T = TypeVar("T")
Outcome = tuple[Any, ...]

LAST_PATIENCE: Final = 5.0
"""Seconds that closing waits for the link to have ended the connection."""


class Keeper:
    """Owns the link. Everything happens on the event loop on which it was made; it has no thread but the link's."""

    def __init__(
        self, options: Options, link_options: LinkOptions, make_link: Callable[[LinkOptions], Link]
    ) -> None:
        self.loop: Final = asyncio.get_running_loop()
        self.slots: Final = Slots(self.loop)
        self.handlers: Final = Handlers(self.loop, logging.getLogger(f"vorlinkit.{options.host}"))
        self.events: Final[Inbox[MachineEvent]] = Inbox("machine.events", 1000, None, self.handlers)
        self.talk: Final = Conversation(options, time.monotonic, self._changed, self._tell)
        self.link: Final = make_link(replace(link_options, log_level=core_level(self.talk.log)))
        self._attendant: Final = Attendant(self.talk, self.link, threading.RLock())
        self._tokens: Final = self._attendant.tokens
        self._replies: Final = self._attendant.replies
        self._queue: Final = self.link.events
        self._waiting: list[asyncio.Future[None]] = []
        self._timer: asyncio.TimerHandle | None = None
        self._closing: asyncio.Task[None] | None = None
        self._watch_queue()
        self._look()
        _keepers.add(self)

    async def ask(
        self, command_id: int, payload: bytes, timeout: float, connection: int, holds_slot: bool
    ) -> Outcome:
        """One request. Whoever is cancelled meanwhile is free at once; if the answer then comes too late, or not at
        all, that leaves a gap, and until it is known the next request of the command waits."""
        future: asyncio.Future[Outcome] = self.loop.create_future()
        token = next(self._tokens)
        self._replies[token] = partial(_arrive, future)
        self.link.send(command_id, payload, timeout, connection, token)
        try:
            return await future
        except BaseException:
            if token in self._replies:
                if holds_slot:
                    self.slots.keep(command_id)
                orphan = partial(self._orphan_answered, command_id, connection, holds_slot)
                self._replies[token] = orphan
            raise

    async def decide(self, steps: Steps[T], slot: int = -1) -> T:
        """Carries a decision out. `slot`: the command whose slot the caller has taken."""
        outcome: Any = None
        try:
            while True:
                action = steps.send(outcome)
                outcome = None
                if isinstance(action, Ask):
                    outcome = await self.ask(*action[:4], action.command_id == slot)
                elif isinstance(action, AwaitChange):
                    await self._await_change(action)
                elif isinstance(action, Connect):
                    outcome = await self._connect()
                else:
                    self._attendant.give_up()
        except StopIteration as end:
            result: T = end.value
            return result
        finally:
            steps.close()

    async def close(self, reason: str) -> None:
        """Ends the connection, and every wait. As often as one likes."""
        if self._closing is None:
            self._closing = self.loop.create_task(self._close(reason))
        await asyncio.shield(self._closing)

    def inherit(self) -> None:
        """In a child process."""
        self.talk.closed = f"the connection belongs to the process that was forked (now {os.getpid()})"
        self.talk.ready = self.talk.up = 0
        self.talk.clear = 0

    async def _close(self, reason: str) -> None:
        self.talk.close(reason)
        self.events.end(None)
        self.handlers.stop()
        if self._timer is not None:
            self._timer.cancel()
        ended = self.loop.create_future()
        token = next(self._tokens)
        self._replies[token] = partial(_arrive, ended)
        self.link.disconnect(token)
        await asyncio.wait([ended], timeout=LAST_PATIENCE)
        self._unwatch_queue()
        self.link.close()
        self._take()

    async def _connect(self) -> Outcome:
        future: asyncio.Future[Outcome] = self.loop.create_future()
        token = next(self._tokens)
        self._replies[token] = partial(_arrive, future)
        self.link.connect(token)
        return await future

    async def _await_change(self, action: AwaitChange) -> None:
        if self.talk.version == action.version:
            change: asyncio.Future[None] = self.loop.create_future()
            self._waiting.append(change)
            await asyncio.wait([change], timeout=action.timeout)

    def _tell(self, event: MachineEvent) -> None:
        self.events.deliver((event,))

    def _changed(self) -> None:
        waiting, self._waiting = self._waiting, []
        for change in waiting:
            if not change.done():
                change.set_result(None)

    def _orphan_answered(self, command_id: int, connection: int, held_slot: bool, outcome: Outcome) -> None:
        if outcome[0] != links.OK:
            settle(self.talk, command_id, connection, outcome)
        if held_slot:
            self.slots.leave(command_id)

    # --- events ---------------------------------------------------------------------------------------

    def _take(self) -> None:
        self._attendant.handle(self._queue.take())

    def _look(self) -> None:
        """The idle check, and the next time for it."""
        self._attendant.look()
        due = self._attendant.due()
        if due is not None:
            self._timer = self.loop.call_later(due, self._look)

    def _watch_queue(self) -> None:
        try:
            self.loop.add_reader(self._queue.fileno(), self._take)
        except (
            NotImplementedError
        ):  # an event loop that cannot watch descriptors; the link on sockets can do without
            set_wake: Callable[[object], None] = self._queue.set_wake  # type: ignore[attr-defined]
            set_wake(partial(self.loop.call_soon_threadsafe, self._take))

    def _unwatch_queue(self) -> None:
        try:
            self.loop.remove_reader(self._queue.fileno())
        except NotImplementedError:
            self._queue.set_wake(None)  # type: ignore[attr-defined]


def _arrive(future: asyncio.Future[Any], outcome: Outcome) -> None:
    if not future.done():
        future.set_result(outcome)


_keepers: weakref.WeakSet[Keeper] = weakref.WeakSet()


def _after_fork() -> None:
    for keeper in list(_keepers):
        keeper.inherit()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_after_fork)
