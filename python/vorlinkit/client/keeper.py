"""What runs behind a `Machine`: the link, the thread that looks after it, and the lock under which is decided."""

from __future__ import annotations

import atexit
import logging
import os
import threading
import time
import weakref
from collections.abc import Callable
from dataclasses import replace
from functools import partial
from typing import Any, Final, TypeVar

from .actions import Action, Ask, AwaitChange, Connect, GiveUp, Steps
from .attendant import Attendant
from .conversation import Conversation, MachineEvent, Options
from .dispatcher import Dispatcher
from .errors import Closed
from .link import STOPPED, Link, LinkOptions, Outcome
from .log import core_level
from .subscription import Inbox

T = TypeVar("T")

LAST_PATIENCE: Final = 5.0
"""Seconds that closing waits for the link to have ended the connection."""


class Slots(dict[int, threading.RLock]):
    """One lock per command: a second request of a command waits until the first one is answered, or known not to be.

    A signal handler may ask the same command on the thread that holds its lock already.
    """

    def __missing__(self, command_id: int) -> Any:
        return self.setdefault(command_id, threading.RLock())


class Keeper:
    """Owns link, keeper thread and dispatcher. Any thread may call it; it knows no `Machine`, so that one which
    nobody holds any more can end."""

    def __init__(
        self, options: Options, link_options: LinkOptions, make_link: Callable[[LinkOptions], Link]
    ) -> None:
        self._lock = threading.RLock()
        self._change = threading.Condition(self._lock)
        self._done = self._inherited = False
        self.slots: Final = Slots()
        self.dispatcher: Final = Dispatcher(
            f"vorlinkit handlers {options.host}", logging.getLogger(f"vorlinkit.{options.host}")
        )
        self.events: Final[Inbox[MachineEvent]] = Inbox("machine.events", 1000, None, self.dispatcher)
        self.talk: Final = Conversation(options, time.monotonic, self._changed, self._tell)
        self.link: Final = make_link(replace(link_options, log_level=core_level(self.talk.log)))
        self._attendant: Final = Attendant(self.talk, self.link, self._lock)
        name = f"vorlinkit keeper {options.host}"
        self._thread: Final = threading.Thread(target=self._run, name=name, daemon=True)
        self._thread.start()
        _keepers.add(self)

    def decide(self, steps: Steps[T]) -> T:
        """Carries a decision out on the calling thread. Ctrl-C in it ends the decision, too."""
        outcome: Any = None
        try:
            while True:
                with self._lock:
                    action = steps.send(outcome)
                try:
                    outcome = self._carry_out(action)
                except BaseException as interruption:
                    with self._lock:
                        steps.throw(interruption)
                    raise
        except StopIteration as end:
            result: T = end.value
            return result

    def interrupted(self, command_id: int) -> None:
        """A wait for the answer to this command was given up."""
        with self._lock:
            self.talk.doubt(command_id)

    def close(self, reason: str) -> None:
        """Ends the connection, every wait and the threads. Any thread, as often as one likes."""
        if self._inherited:
            return
        with self._lock:
            if not self.talk.closed:
                self.talk.close(reason)
                self.events.end(None)
                token = next(self._attendant.tokens)
                self._attendant.replies[token] = self._ended
                self.link.disconnect(token)
        self.dispatcher.stop()
        if threading.current_thread() is not self._thread:
            self._thread.join(LAST_PATIENCE)

    def abandon(self) -> None:
        """Nobody holds the machine any more. Called by the garbage collection, which may run amid anything: so the
        work is done elsewhere."""
        threading.Thread(target=self.close, args=("its machine object is gone",), daemon=True).start()

    def inherit(self) -> None:
        """In a child process: there are no threads behind it, and other threads may have held its locks."""
        if self.talk.closed:
            return
        reason = f"the connection belongs to the process that was forked (now {os.getpid()}); connect anew in this one"
        self._lock = threading.RLock()
        self._change = threading.Condition(self._lock)
        self._done = self._inherited = True
        self.slots.clear()
        self.talk.closed = reason
        self.talk.ready = self.talk.up = 0
        self.talk.update()
        for inbox in (self.events, *(one for topic in self.talk.topics for one in topic.listeners)):
            if isinstance(inbox, Inbox):
                inbox.inherit(Closed(f"{inbox.name} has ended: {reason}"))

    def _carry_out(self, action: Action) -> Any:
        if isinstance(action, Ask) and action.in_order:
            return self._reply_to(partial(self.link.send, *action[:4]))
        if isinstance(action, Ask):
            return self.link.request(*action[:4])
        if isinstance(action, Connect):
            return self._reply_to(self.link.connect)
        if isinstance(action, GiveUp):
            return self._attendant.give_up()
        return self._await_change(action)

    def _await_change(self, action: AwaitChange) -> None:
        with self._change:
            if self.talk.version == action.version:
                self._change.wait(action.timeout)

    def _reply_to(self, start: Callable[[int], None]) -> Any:
        """What the link replies to `start`, when the keeper thread has come to it."""
        replies: list[Any] = []

        def replied(outcome: Any) -> None:
            replies.append(outcome)
            self._change.notify_all()

        with self._change:
            token = next(self._attendant.tokens)
            self._attendant.replies[token] = replied
            start(token)
            while not replies and not self._done:
                self._change.wait()
        return replies[0] if replies else Outcome(STOPPED, "closed", b"", 0, 0)

    def _tell(self, event: MachineEvent) -> None:
        self.events.deliver((event,))

    def _changed(self) -> None:
        with self._change:
            self._change.notify_all()

    def _ended(self, _outcome: Any) -> None:
        self._done = True
        self._change.notify_all()

    def _run(self) -> None:
        """The keeper thread."""
        queue, attendant = self.link.events, self._attendant
        while not self._done:
            attendant.handle(queue.wait(attendant.due()))
            attendant.look()
        self.link.close()
        attendant.handle(queue.take())


def _at_exit() -> None:
    for keeper in list(_keepers):
        keeper.close("the interpreter ends")


_keepers: weakref.WeakSet[Keeper] = weakref.WeakSet()


def _after_fork() -> None:
    for keeper in list(_keepers):
        keeper.inherit()


atexit.register(_at_exit)
if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_after_fork)
