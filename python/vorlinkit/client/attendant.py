"""Looks after a link: every event goes to whom it concerns, and what nobody waits for is decided here."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Sequence
from contextlib import AbstractContextManager
from functools import partial
from itertools import count
from typing import Any, Final

from . import link as links
from . import log
from .actions import Ask, GiveUp, Steps
from .calls import check_idle
from .control import TAKING
from .conversation import Conversation
from .handshake import handshake

Outcome = tuple[Any, ...]

REVIEW_EVERY: Final = 0.5
"""Seconds between two looks at the logger's level and at what the link had to throw away."""


class Attendant:
    """Used by one thread or event loop: the one that takes the link's events.

    `guard` is held while something is decided; an event loop needs none. `replies` says who waits for which token.
    """

    def __init__(self, talk: Conversation, link: links.Link, guard: AbstractContextManager[Any]) -> None:
        self.tokens: Final = count(1)
        self.replies: Final[dict[int, Callable[[Outcome], object]]] = {}
        self._talk = talk
        self._link = link
        self._guard = guard
        self._log_level = log.core_level(talk.log)
        self._answers = 0
        self._heard = False
        self._dropped = 0
        self._next_review = 0.0
        self._next_look = talk.clock() + talk.options.idle_check

    def handle(self, events: Iterable[links.Event]) -> None:
        """Never raises: a fault of ours is logged, and the next event gets its turn."""
        for event in events:
            try:
                if event[0] == links.NOTIFICATION:
                    self._notified(event[1], event[2])
                else:
                    self._handle_rare(event)
            except Exception:
                self._talk.log.exception("an event of the connection could not be handled: %r", event[:2])
        if self._talk.clock() >= self._next_review:
            self._review()

    def _review(self) -> None:
        """What need not be looked at with every event."""
        self._next_review = self._talk.clock() + REVIEW_EVERY
        level = log.core_level(self._talk.log)
        if level != self._log_level:
            self._log_level = level
            self._link.set_log_level(level)
        dropped = self._link.events.dropped()
        if dropped > self._dropped:
            lost, self._dropped = dropped - self._dropped, dropped
            self._talk.log.warning(
                "%d notifications came faster than they were taken, and were thrown away", lost
            )

    def _notified(self, command_id: int, payloads: Sequence[bytes]) -> None:
        self._heard = True
        if command_id in TAKING:
            self._control_notified(command_id)
        for error in self._talk.topics.route(command_id, payloads):
            self._talk.log.warning("a notification was thrown away: %s", error)

    def run(self, steps: Steps[Any]) -> None:
        """Carries a decision out that nobody waits for, as far as it goes by now."""
        self._advance(steps, None)

    def due(self) -> float | None:
        """Seconds until `look` wants to be called, None for never."""
        if not self._talk.options.idle_check:
            return None
        return max(0.0, self._next_look - self._talk.clock())

    def look(self) -> None:
        """Asks a machine that has neither answered nor notified for the time of the idle check."""
        talk = self._talk
        if not talk.options.idle_check or talk.clock() < self._next_look:
            return
        self._next_look = talk.clock() + talk.options.idle_check
        self._review()
        idle = talk.answers == self._answers and not self._heard
        self._answers, self._heard = talk.answers, False
        if idle and talk.ready:
            with self._guard:
                self.run(check_idle(talk, talk.options.timeout))

    def give_up(self) -> None:
        """Ends the connection, and makes another one if that is wanted."""
        again = self._talk.options.reconnect
        (self._link.connect if again else self._link.disconnect)(next(self.tokens))

    def _handle_rare(self, event: links.Event) -> None:
        kind = event[0]
        if kind == links.REPLY:
            waiting = self.replies.pop(event[1], None)
            if waiting is not None:
                with self._guard:
                    waiting(event[2])
        elif kind == links.STATE:
            with self._guard:
                self._on_state(event[1], event[2])
        elif kind == links.LOG:
            log.hand_on(self._talk.log, bool(self._talk.closed), *event[1:])

    def _on_state(self, connection: int, reason: str) -> None:
        talk = self._talk
        if talk.closed:
            return
        talk.lost(reason)
        if connection:
            talk.connected(connection)
            self.run(handshake(talk, connection))

    def _control_notified(self, command_id: int) -> None:
        with self._guard:
            self._talk.control.notified(command_id)
            self._talk.update()

    def _advance(self, steps: Steps[Any], outcome: Outcome | None) -> None:
        try:
            action = steps.send(outcome)
            while isinstance(action, GiveUp):
                self.give_up()
                action = steps.send(None)
        except StopIteration:
            return
        assert isinstance(action, Ask), action
        token = next(self.tokens)
        self.replies[token] = partial(self._advance, steps)
        self._link.send(*action[:4], token)
