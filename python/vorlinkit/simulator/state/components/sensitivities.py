"""Sensitivities: one value per five-byte key."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Final

from vorlinkit.wire.records import Known, Record, number

from ..component import Handler, Services
from ..subscriptions import Client

Key = tuple[int, ...]
KEY_FIELDS: Final = ("SensitivityType", "Division", "CameraPosition", "Side", "ListIndex")
TYPES: Final = (1, 2)
HIGHEST_VALUE: Final = 100


class SensitivitiesComponent:
    """Two types, each for two camera positions of division 0."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine
        self._values: dict[Key, int] = {(kind, 0, camera, 1, 0): 40 for kind in TYPES for camera in (1, 2)}

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetSensitivities": self._get_list,
            "GetSensitivityValue": self._get,
            "SetSensitivityValue": self._set,
        }

    def _get_list(self, client: Client, request: Record) -> Known:
        items: list[Record] = [
            {
                **dict(zip(KEY_FIELDS, key, strict=True)),
                "SensitivityName": f"Sensitivity {key[0]} of camera {key[2]}",
            }
            for key in self._values
        ]
        return {"CommandError": 0, "listOfSensitivities": items}

    def _get(self, client: Client, request: Record) -> Known:
        key = _key(request)
        if key not in self._values:
            return {"CommandError": 2 if key[0] not in TYPES else 3, "SensitivityValue": 0}
        return {"CommandError": 0, "SensitivityValue": self._values[key]}

    def _set(self, client: Client, request: Record) -> Known:
        key = _key(request)
        if key not in self._values:
            return {"CommandError": 1 if key[0] not in TYPES else 2}
        value = number(request, "NewValue")
        if value > HIGHEST_VALUE:
            return {"CommandError": 3}
        self._values[key] = value
        self._machine.changed("GetSensitivityValue", dict(zip(KEY_FIELDS, key, strict=True)))
        return {"CommandError": 0}


def _key(request: Record) -> Key:
    return tuple(number(request, name) for name in KEY_FIELDS)
