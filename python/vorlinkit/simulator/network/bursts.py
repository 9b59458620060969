"""Notifications that nobody asked for, for rules and for tests that need load."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from itertools import repeat
from typing import Any

from vorlinkit.catalogue import Command
from vorlinkit.wire import frames

from ..answer import NotificationMaker
from ..faults.misbehaviour import ScenarioError
from ..state.machine import Machine, Reply
from ..state.subscriptions import Client
from .given import record

OF_NOTHING_ELSE = "RegisterForExclusiveControlNotifications"
"""What is told when neither rule nor request nor subscription says which notification it should be."""


def maker(machine: Machine, client: Client, reply: Reply | None = None) -> NotificationMaker:
    """What makes the notifications of a burst, one by one, so that a long burst takes no memory.

    They are of the command asked for, else of the one that is answered, else of one subscribed to.
    """

    def make(command_id: int | None, count: int, size: int | None) -> Iterable[bytes]:
        command = _command(machine, client, reply, command_id)
        if size is not None:
            return numbered(command.id if command is not None else command_id or 0, count, size)
        if command is None:
            return repeat(frames.notification(command_id or 0), count)
        answered = reply is not None and reply.command is command
        known = (reply.known, reply.request, reply.response) if reply is not None and answered else ()
        return repeat(machine.notification(command, *known), count)

    return make


def numbered(command_id: int, count: int, size: int) -> Iterator[bytes]:
    """Notifications with payloads of ``size`` bytes, which begin with a running 32-bit number if it fits."""
    filler = bytes(max(0, size - 4))
    for at in range(count):
        yield frames.notification(command_id, (at.to_bytes(4, "big") + filler) if size >= 4 else bytes(size))


def notification_of(machine: Machine, command: Command, given: Mapping[str, Any]) -> bytes:
    """A notification with these values, which have to fit its layout."""
    fields = command.notification.fields if command.notification is not None else ()
    values = record(command.name, fields, given, {})
    made = machine.plausible.complete(fields, values)
    for key, value in values.items():
        if isinstance(value, int) and made.get(key) != value:  # a discriminator that names no alternative
            raise ScenarioError(f"{key} does not take {value}")
    return machine.notification(command, values)


def _command(machine: Machine, client: Client, reply: Reply | None, command_id: int | None) -> Command | None:
    if command_id is not None:
        return machine.command_with_id(command_id)
    if reply is not None and reply.command is not None and reply.command.notification is not None:
        return reply.command
    if client.subscriptions:
        return client.subscriptions[0].command
    return next((one for one in machine.catalogue.commands if one.name == OF_NOTHING_ELSE), None)
