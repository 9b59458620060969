"""What the cameras deliver: grey pictures, as the frames show."""

from __future__ import annotations

from collections.abc import Mapping

from vorlinkit.wire.records import Known, Record

from ..component import Handler, Services
from ..subscriptions import Client


class CamerasComponent:
    """Has no state; width, length and depth of frames are made up in one place for all messages."""

    def __init__(self, machine: Services) -> None:
        pass

    def handlers(self) -> Mapping[str, Handler]:
        return {"GetCapturableInfo": self._get_info}

    def _get_info(self, client: Client, request: Record) -> Known:
        return {"CommandError": 0, "listOfColours": [{"ColourName": "Grey"}]}
