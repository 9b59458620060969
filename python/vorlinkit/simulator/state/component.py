"""What a component of the machine is, and what the machine does for its components.

Components import this module and the machine imports the components, so neither has to know the other's
class.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping
from typing import Protocol

from vorlinkit.catalogue import Catalogue, Command
from vorlinkit.wire.records import Known, Record

from .clock import Clock
from .subscriptions import Client

Handler = Callable[[Client, Record], Known]
"""What a component does with a request: it returns what it knows of the response, by key."""


class Component(Protocol):
    """A part of the machine that keeps state of its own and answers the commands it knows by name."""

    def handlers(self) -> Mapping[str, Handler]:
        """The commands that the component answers."""


class Services(Protocol):
    """The machine as its components see it."""

    catalogue: Catalogue
    clock: Clock
    clients: list[Client]
    holder: Client | None

    def command_with_id(self, command_id: int) -> Command | None:
        """The command that answers to this id."""

    def on_leaving(self, action: Callable[[Client], None]) -> None:
        """Have ``action`` called for every client that leaves."""

    def on_stopping(self, action: Callable[[], None]) -> None:
        """Have ``action`` called once before the machine stops."""

    def on_restarting(self, action: Callable[[], None]) -> None:
        """Have ``action`` called whenever the machine starts anew."""

    def every_motor_interval(self, move: Callable[[], bool]) -> None:
        """Have ``move`` called at motor intervals while something moves; it says whether more is to come."""

    def wake_motors(self) -> None:
        """Something has to move."""

    def only_on_events(self, *names: str) -> None:
        """These notifications are sent when something happens, never just for having been subscribed."""

    def changed(self, name: str, address: Known | None = None, extra: Known | None = None) -> None:
        """Tell everyone who subscribed to this object; ``extra`` are values for the notification alone."""

    def tell(self, client: Client, name: str, values: Known) -> None:
        """Send one notification of this command to one client, if the catalogue has such a notification."""
