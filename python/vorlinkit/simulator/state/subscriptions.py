"""Who wants to be told of what."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass, field

from vorlinkit.catalogue import Command
from vorlinkit.wire.records import Known, Record


@dataclass
class Client:
    """One connected client, as the machine knows it.

    ``id`` is 0 until the client asks for one. ``deliver`` takes a whole notification frame; it never blocks.
    ``lags`` says whether much of what was delivered has not been taken yet.
    """

    number: int
    deliver: Callable[[bytes], None]
    lags: Callable[[], bool] = lambda: False
    id: int = 0
    registered_for_control: bool = False
    subscriptions: list[Subscription] = field(default_factory=list)


@dataclass
class Subscription:
    """A client's wish to be told of one object; ``request`` is the request that made it."""

    command: Command
    request: Record

    @property
    def address(self) -> Record:
        """The object that the request is about."""
        return {key: self.request[key] for key in self.command.address if key in self.request}

    def is_about(self, address: Known) -> bool:
        """Whether a change of this object concerns the subscriber: nothing that both name may differ."""
        own = self.address
        return all(own[key] == value for key, value in address.items() if key in own)


def subscribing_level(command: Command, request: Record) -> int | None:
    """The value of the subscribing field of a request; None when the command has no such field."""
    value = request.get(command.subscribes)
    return value if isinstance(value, int) else None


def subscribe(client: Client, command: Command, request: Record) -> Subscription:
    """Remember the wish; asking again about the same object replaces the earlier wish."""
    unsubscribe(client, command, request)
    subscription = Subscription(command, request)
    client.subscriptions.append(subscription)
    return subscription


def unsubscribe(client: Client, command: Command, request: Record) -> None:
    """Forget the wish about this object."""
    address = Subscription(command, request).address
    client.subscriptions = [
        one for one in client.subscriptions if one.command.name != command.name or one.address != address
    ]


def matching(clients: list[Client], name: str, address: Known) -> Iterator[tuple[Client, Subscription]]:
    """Everyone to be told that this object changed."""
    for client in clients:
        for subscription in list(client.subscriptions):
            if subscription.command.name == name and subscription.is_about(address):
                yield client, subscription
