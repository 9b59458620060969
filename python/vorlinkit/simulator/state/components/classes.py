"""Sort classes: each has a state, a destination and a sensitivity level within its division."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from typing import Final

from vorlinkit.wire.records import Known, Record, number, text

from ..component import Handler, Services
from ..subscriptions import Client

UNKNOWN_CLASS: Final = 0x0001
LEVEL_OUT_OF_RANGE: Final = 0x0002
INVALID_STATE: Final = 0x0002
INVALID_DESTINATION: Final = 0x0008
HIGHEST_LEVEL: Final = 100
STATES: Final = (0, 1)
DESTINATIONS: Final = (0, 1, 2)
CHANGED: Final = 2
"""The simulator's own number for a list entry that changed."""


@dataclass
class SortClass:
    """One class."""

    name: str
    division: str
    state: int = 1
    destination: int = 1
    level: int = 50


class ClassesComponent:
    """The classes Good, Broken and Foreign in the divisions D1 and D2."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine
        self._classes = [
            SortClass(name, division, destination=destination)
            for division in ("D1", "D2")
            for destination, name in enumerate(("Good", "Broken", "Foreign"))
        ]

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetClassesList": self._get_list,
            "GetClassInfo": self._get_info,
            "SetClassStateDestination": self._set_state_destination,
            "SetClassSensitivityLevel": self._set_level,
        }

    def _find(self, request: Record) -> SortClass | None:
        key = (text(request, "ClassName"), text(request, "Division"))
        return next((one for one in self._classes if (one.name, one.division) == key), None)

    def _get_list(self, client: Client, request: Record) -> Known:
        return {"CommandError": 0, "listOfClasses": [_entry(one) for one in self._classes]}

    def _get_info(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_CLASS, "State": 0, "Destination": 0, "CurrentSensitivityLevel": 0}
        return {
            "CommandError": 0,
            "State": found.state,
            "Destination": found.destination,
            "CurrentSensitivityLevel": found.level,
        }

    def _set_state_destination(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_CLASS}
        state, destination = number(request, "State"), number(request, "Destination")
        error = (0 if state in STATES else INVALID_STATE) | (
            0 if destination in DESTINATIONS else INVALID_DESTINATION
        )
        if error:
            return {"CommandError": error}
        found.state, found.destination = state, destination
        self._report(found)
        self._machine.changed(
            "GetClassesList", extra={"listOfClasses": [_entry(found)], "ListAction": CHANGED}
        )
        return {"CommandError": 0}

    def _set_level(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_CLASS}
        level = number(request, "SensitivityLevel")
        if level > HIGHEST_LEVEL:
            return {"CommandError": LEVEL_OUT_OF_RANGE}
        found.level = level
        self._report(found)
        return {"CommandError": 0}

    def _report(self, changed: SortClass) -> None:
        self._machine.changed("GetClassInfo", {"ClassName": changed.name, "Division": changed.division})


def _entry(one: SortClass) -> Record:
    return {
        "ClassName": one.name,
        "DivisionName": one.division,
        "Destination": one.destination,
        "State": one.state,
    }
