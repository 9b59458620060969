"""Who talks to whom: client ids, machine and software identity, what is supported."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Final

from vorlinkit.wire.frames import NOTIFICATION, REQUEST, RESPONSE, VERSION
from vorlinkit.wire.records import Known, Record, number

from ..component import Handler, Services
from ..subscriptions import Client

MACHINE_INFO: Final[Record] = {
    "InterfaceType": 1,
    "ModuleCount": 2,
    "InterfaceVersion": "1.0",
    "SerialNumber": "SIM-0001",
    "MachineType": "VorlinKit simulator",
}
HIGHEST_CLIENT_ID: Final = 255


class IdentityComponent:
    """Hands out client ids, the lowest free one first, and answers what never changes."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetClientId": self._get_client_id,
            "GetSupportedCommands": self._get_supported_commands,
            "IsCommandSupported": self._is_command_supported,
            "GetHeaderVersions": self._get_header_versions,
            "GetMachineInfo": lambda client, request: MACHINE_INFO,
            "GetSoftwareVersions": self._get_software_versions,
        }

    def _get_client_id(self, client: Client, request: Record) -> Known:
        if client.id == 0:
            taken = {other.id for other in self._machine.clients}
            client.id = next((one for one in range(1, HIGHEST_CLIENT_ID + 1) if one not in taken), 0)
        return {"ClientID": client.id}

    def _get_supported_commands(self, client: Client, request: Record) -> Known:
        ids = sorted({command.id for command in self._machine.catalogue.commands})
        return {"listOfCommands": [{"CommandID": one} for one in ids]}

    def _is_command_supported(self, client: Client, request: Record) -> Known:
        asked = number(request, "CommandID")
        return {"IsSupported": int(self._machine.command_with_id(asked) is not None)}

    def _get_header_versions(self, client: Client, request: Record) -> Known:
        kinds = (REQUEST, RESPONSE, NOTIFICATION)
        return {"listOfHeaders": [{"HeaderType": kind, "HeaderVersion": VERSION} for kind in kinds]}

    def _get_software_versions(self, client: Client, request: Record) -> Known:
        versions: list[Record] = [{"Item": "1.0 (simulated)"}]
        components: list[Record] = [
            {"ComponentName": name, "listOfLists": [{"ListName": "Versions", "listOfItems": versions}]}
            for name in ("VORLIN server", "System controller")
        ]
        return {"CopyrightMessage": "VorlinKit simulator", "listOfComponents": components}
