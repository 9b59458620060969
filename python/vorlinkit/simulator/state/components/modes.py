"""Modes: stored sort programs, one of them the current one; users make, guard and delete their own."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field, replace
from typing import Final

from vorlinkit.wire.records import Known, Record, number, text

from ..component import Handler, Services
from ..subscriptions import Client

FACTORY: Final = 1
USER: Final = 2
ALL_TYPES: Final = 0
ADDED: Final = 1
CHANGED: Final = 2
REMOVED: Final = 3
RECALLED: Final = 2
"""The simulator's own numbers: mode types, list actions, and the status of a recall that is done."""

REFUSED: Final = 0x0001
"""Which errors these commands know is not settled: the simulator refuses with a bit that has no text."""


@dataclass
class Mode:
    """One mode; ``data`` is what the machine would store."""

    name: str
    type: int = USER
    protected: int = 0
    data: bytes = b"simulated mode"
    information: dict[str, str] = field(default_factory=dict)


class ModesComponent:
    """The factory modes Standard and Fine, and the user's mode User1. Standard is the current one."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine
        self._modes = [Mode("Standard", FACTORY, 1), Mode("Fine", FACTORY, 1), Mode("User1")]
        for mode in self._modes:
            mode.information["Description"] = f"{mode.name} (simulated)"
        self._current = self._modes[0]
        machine.only_on_events("RequestModeRecallNotifications")

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetCurrentMode": self._get_current,
            "GetCurrentModeWithNotification": self._get_current,
            "GetModeList": self._get_list,
            "GetModeListWithNotification": self._get_list,
            "GetModeListWithNotificationGallix": self._get_list,
            "RecallMode": self._recall,
            "GetModeData": self._get_data,
            "UploadUserModeData": self._upload,
            "CreateNewUserModeFromExisting": self._create,
            "SaveCurrentModeIntoNewUserMode": self._create,
            "SaveCurrentModeIntoExistingUserMode": self._save,
            "DeleteUserMode": self._delete,
            "RenameUserMode": self._rename,
            "ProtectMode": lambda client, request: self._protect(request, 1),
            "UnprotectMode": lambda client, request: self._protect(request, 0),
            "GetAdditionalModeData": self._get_information,
            "SetAdditionalModeData": self._set_information,
            "DeleteAdditionalModeData": self._delete_information,
        }

    def _find(self, name: str) -> Mode | None:
        return next((mode for mode in self._modes if mode.name == name), None)

    def _user_mode(self, name: str) -> Mode | None:
        """A mode that may be changed."""
        mode = self._find(name)
        return mode if mode is not None and mode.type == USER and not mode.protected else None

    def _get_current(self, client: Client, request: Record) -> Known:
        return {"CommandError": 0, **self._entry(self._current), "Modified": 0}

    def _get_list(self, client: Client, request: Record) -> Known:
        wanted = number(request, "ModeType", ALL_TYPES)
        modes = [self._entry(mode) for mode in self._modes if wanted in (ALL_TYPES, mode.type)]
        first = modes[0] if modes else {}
        current = self._modes.index(self._current) + 1
        return {"CommandError": 0, "listOfModes": modes, "CurrentModeNumber": current, **first}

    def _recall(self, client: Client, request: Record) -> Known:
        mode = self._find(text(request, "ModeName"))
        if mode is None:
            return {"CommandError": REFUSED}
        self._current = mode
        recalled: Record = {"RecallStatus": RECALLED, "ClientID": client.id, **self._entry(mode)}
        self._machine.changed("RequestModeRecallNotifications", extra=recalled)
        self._machine.changed("GetCurrentModeWithNotification")
        return {"CommandError": 0, "RecallStatus": RECALLED, "PercentageComplete": 100}

    def _get_data(self, client: Client, request: Record) -> Known:
        mode = self._find(text(request, "ModeName"))
        if mode is None:
            return {"CommandError": REFUSED, "ModeData": b""}
        return {"CommandError": 0, "ModeType": mode.type, "FormatVersion": 1, "ModeData": mode.data}

    def _upload(self, client: Client, request: Record) -> Known:
        name, data = text(request, "ModeName"), request.get("ModeData")
        known = self._find(name)
        if known is None:
            self._add(Mode(name))
        elif self._user_mode(name) is None or not number(request, "Overwrite"):
            return {"CommandError": REFUSED}
        mode = self._find(name)
        if mode is not None and isinstance(data, bytes):
            mode.data = data
        return {"CommandError": 0}

    def _create(self, client: Client, request: Record) -> Known:
        name = text(request, "NewModeName")
        source = self._find(text(request, "ExistingModeName", self._current.name))
        if source is None or not name or self._find(name) is not None:
            return {"CommandError": REFUSED}
        self._add(replace(source, name=name, type=USER, protected=0, information=dict(source.information)))
        return {"CommandError": 0}

    def _save(self, client: Client, request: Record) -> Known:
        mode = self._user_mode(text(request, "ExistingModeName"))
        if mode is None:
            return {"CommandError": REFUSED}
        mode.data = self._current.data
        self._report(mode, CHANGED)
        return {"CommandError": 0}

    def _delete(self, client: Client, request: Record) -> Known:
        mode = self._user_mode(text(request, "ModeName"))
        if mode is None or mode is self._current:
            return {"CommandError": REFUSED}
        self._report(mode, REMOVED)
        self._modes.remove(mode)
        return {"CommandError": 0}

    def _rename(self, client: Client, request: Record) -> Known:
        mode, name = self._user_mode(text(request, "ModeName")), text(request, "NewModeName")
        if mode is None or not name or self._find(name) is not None:
            return {"CommandError": REFUSED}
        self._report(mode, REMOVED)
        mode.name = name
        self._report(mode, ADDED)
        if mode is self._current:
            self._machine.changed("GetCurrentModeWithNotification")
        return {"CommandError": 0}

    def _protect(self, request: Record, protected: int) -> Known:
        mode = self._find(text(request, "ModeName"))
        if mode is None or mode.type != USER:
            return {"CommandError": REFUSED}
        mode.protected = protected
        self._report(mode, CHANGED)
        return {"CommandError": 0}

    def _get_information(self, client: Client, request: Record) -> Known:
        mode = self._find(text(request, "ModeName"))
        information = mode.information.get(text(request, "Name")) if mode is not None else None
        if information is None:
            return {"CommandError": REFUSED, "Information": ""}
        return {"CommandError": 0, "Information": information}

    def _set_information(self, client: Client, request: Record) -> Known:
        mode = self._find(text(request, "ModeName"))
        if mode is None:
            return {"CommandError": REFUSED, "Information": ""}
        mode.information[text(request, "Name")] = text(request, "Information")
        return {"CommandError": 0, "Information": text(request, "Information")}

    def _delete_information(self, client: Client, request: Record) -> Known:
        mode = self._find(text(request, "ModeName"))
        known = mode is not None and mode.information.pop(text(request, "Name"), None) is not None
        return {"CommandError": 0 if known else REFUSED}

    def _add(self, mode: Mode) -> None:
        self._modes.append(mode)
        self._report(mode, ADDED)

    def _report(self, mode: Mode, action: int) -> None:
        entry = self._entry(mode)
        for name in ("GetModeListWithNotification", "GetModeListWithNotificationGallix"):
            self._machine.changed(name, extra={"listOfModes": [entry], "ListAction": action, **entry})

    def _entry(self, mode: Mode) -> Record:
        return {
            "ModeNumber": self._modes.index(mode) + 1,
            "ModeName": mode.name,
            "ProductName": "Simulated product",
            "ModeType": mode.type,
            "Protected": mode.protected,
        }
