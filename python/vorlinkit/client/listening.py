"""Who listens to which notifications: any number of listeners to an object, one request to the machine for all."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from typing import Any, Protocol

from .errors import DecodeError
from .plan import Plan


class Listener(Protocol):
    """One subscription as a user holds it. Called on the thread or loop that looks after the link."""

    def deliver(self, notifications: Sequence[Any]) -> None: ...
    def end(self, error: Exception | None) -> None:
        """Nothing comes any more; `error` says why, None if the user ended it."""


def asks(plan: Plan[Any, Any]) -> bool:
    """Whether subscribing sends a request. Notifications that come unasked are only listened to, but for those of a
    command that does nothing else than to register for them."""
    return plan.effect == "read" or not plan.unasked


class Topic:
    """One object that somebody listens to, and what asks the machine for its notifications.

    `renewable`: asking again changes nothing; what starts something on the machine is never asked again by itself.
    `confirmed`: the machine has accepted the request, so it is renewed on the next connection.
    """

    def __init__(self, plan: Plan[Any, Any], values: tuple[Any, ...]) -> None:
        self.plan = plan
        self.values = values
        self.address = plan.address_of(values)
        self.asks = asks(plan)
        self.renewable = plan.effect == "read"
        self.payload = b""
        self.response: Any = None
        self.confirmed = False
        self.listeners: tuple[Listener, ...] = ()

    def __str__(self) -> str:
        return f"{self.plan.name}({', '.join(repr(value) for value in self.values if value is not None)})"


class Topics:
    """All of one machine. Changed by one at a time; `route` may run meanwhile, on what it finds."""

    def __init__(self) -> None:
        self._by_command: dict[int, tuple[Topic, ...]] = {}

    def __iter__(self) -> Iterator[Topic]:
        for topics in self._by_command.values():
            yield from topics

    def find(self, plan: Plan[Any, Any], values: tuple[Any, ...]) -> Topic | None:
        """The topic that `values` would ask for once more, if it may be shared."""
        address = plan.address_of(values)
        for topic in self._by_command.get(plan.id, ()):
            if topic.plan is plan and topic.renewable and topic.address == address:
                return topic
        return None

    def add(self, topic: Topic, listener: Listener) -> None:
        topic.listeners = (*topic.listeners, listener)
        there = self._by_command.get(topic.plan.id, ())
        if topic not in there:
            self._by_command[topic.plan.id] = (*there, topic)

    def remove(self, topic: Topic, listener: Listener) -> bool:
        """True if nobody listens to the topic any more."""
        topic.listeners = tuple(one for one in topic.listeners if one is not listener)
        there = self._by_command.get(topic.plan.id, ())
        if topic.listeners or topic not in there:
            return False
        self.drop(topic)
        return True

    def drop(self, topic: Topic) -> None:
        there = self._by_command.get(topic.plan.id, ())
        self._by_command[topic.plan.id] = tuple(one for one in there if one is not topic)

    def route(self, command_id: int, payloads: Sequence[bytes]) -> list[DecodeError]:
        """Hands notifications of a command to everybody whom they concern; what could not be read is returned."""
        errors: list[DecodeError] = []
        topics = self._by_command.get(command_id, ())
        for plan in dict.fromkeys(topic.plan for topic in topics):
            # Two commands may share an id; each reads its notifications in its own way.
            notifications: list[Any] = plan.decode_notifications(payloads, errors)
            _deliver([topic for topic in topics if topic.plan is plan], notifications)
        return errors

    def end(self, error: Exception | None) -> None:
        for topic in self:
            for listener in topic.listeners:
                listener.end(error)
        self._by_command = {}


def _deliver(topics: list[Topic], notifications: list[Any]) -> None:
    plan = topics[0].plan
    for topic in topics:
        mine = notifications
        if topic.address:
            mine = [one for one in notifications if plan.concerns(topic.address, one)]
        if mine:
            for listener in topic.listeners:
                listener.deliver(mine)
