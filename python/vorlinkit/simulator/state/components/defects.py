"""Defects: each has a state and a removal level within its division, and free texts under names."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Final

from vorlinkit.wire.records import Known, Record, number, text

from ..component import Handler, Services
from ..subscriptions import Client

UNKNOWN_DEFECT: Final = 0x0001
INVALID_STATE: Final = 0x0002
LEVEL_OUT_OF_RANGE: Final = 0x0002
NOT_PRESENT: Final = 0x0002
HIGHEST_LEVEL: Final = 10
STATES: Final = (0, 1)


@dataclass
class Defect:
    """One defect."""

    name: str
    division: str
    state: int = 1
    level: int = 3
    information: dict[str, str] = field(default_factory=dict)


class DefectsComponent:
    """The defects Stone, Glass and Discoloured in the divisions D1 and D2."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine
        self._defects = [
            Defect(name, division, information={"Description": f"{name} (simulated)"})
            for division in ("D1", "D2")
            for name in ("Stone", "Glass", "Discoloured")
        ]

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetDefectList": self._get_list,
            "GetDefectInfo": self._get_info,
            "SetDefectState": self._set_state,
            "SetDefectRemovalLevel": self._set_level,
            "GetAdditionalDefectInfo": self._get_information,
            "SetAdditionalDefectInfo": self._set_information,
        }

    def _find(self, request: Record) -> Defect | None:
        key = (text(request, "Defect"), text(request, "Division"))
        return next((one for one in self._defects if (one.name, one.division) == key), None)

    def _get_list(self, client: Client, request: Record) -> Known:
        items: list[Record] = [{"Defect": one.name, "Division": one.division} for one in self._defects]
        return {"CommandError": 0, "listOfDefects": items, **items[0]}

    def _get_info(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_DEFECT, "State": 0, "CurrentRemovalLevel": 0}
        return {"CommandError": 0, "State": found.state, "CurrentRemovalLevel": found.level}

    def _set_state(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_DEFECT}
        state = number(request, "State")
        if state not in STATES:
            return {"CommandError": INVALID_STATE}
        found.state = state
        self._report(found)
        return {"CommandError": 0}

    def _set_level(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_DEFECT}
        level = number(request, "RemovalLevel")
        if level > HIGHEST_LEVEL:
            return {"CommandError": LEVEL_OUT_OF_RANGE}
        found.level = level
        self._report(found)
        return {"CommandError": 0}

    def _get_information(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_DEFECT, "Information": ""}
        information = found.information.get(text(request, "Name"))
        if information is None:
            return {"CommandError": NOT_PRESENT, "Information": ""}
        return {"CommandError": 0, "Information": information}

    def _set_information(self, client: Client, request: Record) -> Known:
        found = self._find(request)
        if found is None:
            return {"CommandError": UNKNOWN_DEFECT, "Information": ""}
        found.information[text(request, "Name")] = text(request, "Information")
        return {"CommandError": 0, "Information": text(request, "Information")}

    def _report(self, changed: Defect) -> None:
        self._machine.changed("GetDefectInfo", {"Defect": changed.name, "Division": changed.division})
