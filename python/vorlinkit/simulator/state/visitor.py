"""Another client of the machine, which is there only to take control away from those who have it."""

from __future__ import annotations

from vorlinkit.wire import frames

from .machine import Machine
from .subscriptions import Client


class Visitor:
    """Comes when control is to be lost, and keeps it until it is sent away, forced out, or the machine restarts."""

    def __init__(self, machine: Machine) -> None:
        self._machine = machine
        self._client = Client(0, lambda frame: None)

    def take_control(self) -> None:
        """Forces control away from whoever has it, who is told as by any other client."""
        if self._client not in self._machine.clients:
            self._machine.enter(self._client)
        self._ask("GetClientId")
        self._ask("ForcedGetExclusiveControl")

    def leave(self) -> None:
        """Gives control back, if it has it."""
        self._machine.leave(self._client)
        self._client.id = 0

    def _ask(self, name: str) -> None:
        frame = frames.request(self._machine.catalogue.named(name).id, client_id=self._client.id)
        size = frames.REQUEST_HEADER.size
        self._machine.answer(self._client, frames.parse(frame[:size], frame[size:]))
