"""Exclusive control: at most one client has it."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Final

from vorlinkit.wire.records import Known, Record, text

from ..component import Handler, Services
from ..subscriptions import Client

NOBODY: Final = 0
YOU: Final = 1
ANOTHER: Final = 2
"""The simulator's own numbers for a control status, as seen by the client that reads it."""

OTHER_CLIENT_HAS_CONTROL: Final = 0x0002
NOT_YOURS_TO_RELEASE: Final = 0x0002
INVALID_USER_NAME: Final = 0x0004


class ControlComponent:
    """Who has control, and who is told.

    A client that loses control to another one is told by the notification of the command with which it took
    it; clients that registered (command 5) are told of every change but their own.
    """

    def __init__(self, machine: Services) -> None:
        self._machine = machine
        self._taken_by = ""
        machine.on_leaving(self._release_of)

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetExclusiveControl": lambda client, request: self._get(client, "GetExclusiveControl"),
            "ForcedGetExclusiveControl": lambda client, request: self._force(
                client, "ForcedGetExclusiveControl"
            ),
            "GetExclusiveControlWithUser": self._get_with_user,
            "ForcedGetExclusiveControlWithUser": self._force_with_user,
            "ReleaseExclusiveControl": self._release,
            "RegisterForExclusiveControlNotifications": self._register,
        }

    def _get(self, client: Client, command: str) -> Known:
        if self._machine.holder not in (None, client):
            return {"CommandError": OTHER_CLIENT_HAS_CONTROL}
        return self._force(client, command)

    def _force(self, client: Client, command: str) -> Known:
        before, self._machine.holder = self._machine.holder, client
        if before is not client:
            if before is not None:
                self._machine.tell(before, self._taken_by, self._status_for(before))
            self._tell_registered(but=client)
        self._taken_by = command
        return {"CommandError": 0}

    def _get_with_user(self, client: Client, request: Record) -> Known:
        if not text(request, "UserName"):
            return {"CommandError": INVALID_USER_NAME}
        return self._get(client, "GetExclusiveControlWithUser")

    def _force_with_user(self, client: Client, request: Record) -> Known:
        if not text(request, "UserName"):
            return {"CommandError": INVALID_USER_NAME}
        return self._force(client, "ForcedGetExclusiveControlWithUser")

    def _release(self, client: Client, request: Record) -> Known:
        if self._machine.holder is not client:
            return {"CommandError": NOT_YOURS_TO_RELEASE}
        self._release_of(client)
        return {"CommandError": 0}

    def _release_of(self, client: Client) -> None:
        if self._machine.holder is client:
            self._machine.holder = None
            self._tell_registered(but=client)

    def _register(self, client: Client, request: Record) -> Known:
        client.registered_for_control = True
        return {"CommandError": 0, **self._status_for(client)}

    def _tell_registered(self, but: Client) -> None:
        for client in self._machine.clients:
            if client.registered_for_control and client is not but:
                self._machine.tell(
                    client, "RegisterForExclusiveControlNotifications", self._status_for(client)
                )

    def _status_for(self, client: Client) -> Record:
        holder = self._machine.holder
        status = NOBODY if holder is None else YOU if holder is client else ANOTHER
        return {"ControlStatus": status, "ExclusiveControlStatus": status}
