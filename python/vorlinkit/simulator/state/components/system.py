"""System objects: which of them are disabled."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Final

from vorlinkit.wire.records import Known, Record, number, text

from ..component import Handler, Services
from ..subscriptions import Client
from .modes import ADDED, REMOVED

BY_REQUEST: Final = 1
"""The simulator's own number for why an object is disabled."""


class SystemObjectsComponent:
    """Every name is an object that may be disabled; to begin with none is."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine
        self._disabled: list[str] = []

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "EnableDisableSystemObject": self._set,
            "GetDisabledSystemObjects": self._get_disabled,
        }

    def _set(self, client: Client, request: Record) -> Known:
        name, enable = text(request, "SystemObjectID"), number(request, "Enable") != 0
        if enable == (name in self._disabled):
            if enable:
                self._disabled.remove(name)
            else:
                self._disabled.append(name)
            told: Record = {**_entry(name), "ListAction": REMOVED if enable else ADDED}
            self._machine.changed("GetDisabledSystemObjects", extra=told)
        return {"CommandError": 0}

    def _get_disabled(self, client: Client, request: Record) -> Known:
        items = [_entry(name) for name in self._disabled]
        first: Record = items[0] if items else {"SystemObjectID": "", "DisableReason": 0}
        return {"CommandError": 0, "listOfSystemObjects": items, **first}


def _entry(name: str) -> Record:
    return {"SystemObjectID": name, "DisableReason": BY_REQUEST}
