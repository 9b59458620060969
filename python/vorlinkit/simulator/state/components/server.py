"""The control server itself: clock, status, logs, remote access."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Final

from vorlinkit.wire.records import Known, Record, number, text

from ..component import Handler, Services
from ..subscriptions import Client

LOG_NAMES: Final = ("System", "Audit", "VORLIN")
FLUSH_BEHAVIOURS: Final = (0, 1, 2)
UP_BEFORE_SERVER: Final = 60
"""How many seconds before the server the simulated system controller started."""

REMOTE_OFF: Final = 0
REMOTE_ON: Final = 1
MANUAL_SHUT_DOWN: Final = 0


class ServerComponent:
    """State of the server: all clients share it."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine
        self._started = machine.clock.now()
        self._flush_behaviour = 0
        self._remote_sessions = 0
        self._remote = REMOTE_OFF
        machine.only_on_events("GetServerStatus")
        machine.on_stopping(self._announce_stop)
        machine.on_restarting(self._start)

    def _start(self) -> None:
        self._started = self._machine.clock.now()
        self._remote = REMOTE_OFF

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetServerTime": self._get_time,
            "SetServerTime": self._set_time,
            "GetServerTimeWithNotifications": self._get_time,
            "GetServerStatus": self._get_status,
            "FlushLog": self._flush_log,
            "SelectLogFlushBehaviour": self._select_flush_behaviour,
            "GetLogFlushBehaviour": lambda client, request: {"FlushBehaviour": self._flush_behaviour},
            "StartRemoteAccess": self._start_remote_access,
            "StopRemoteAccess": self._stop_remote_access,
            "GetRemoteAccessStatus": self._get_remote_access_status,
            "GetRemoteConnections": self._get_remote_connections,
        }

    def _get_time(self, client: Client, request: Record) -> Known:
        return {"CommandError": 0, "Timestamp": self._machine.clock.now()}

    def _set_time(self, client: Client, request: Record) -> Known:
        self._machine.clock.set(number(request, "Timestamp"))
        self._machine.changed("GetServerTimeWithNotifications")
        return {"CommandError": 0}

    def _get_status(self, client: Client, request: Record) -> Known:
        return {
            "CommandError": 0,
            "SystemControllerStartTime": max(0, self._started - UP_BEFORE_SERVER),
            "VORLINServerStartTime": self._started,
            "RestartStatus": MANUAL_SHUT_DOWN,
            "DetailedStatus": "The simulator was stopped",
        }

    def _announce_stop(self) -> None:
        self._machine.changed("GetServerStatus")

    def _flush_log(self, client: Client, request: Record) -> Known:
        return {"CommandError": 0 if text(request, "LogName") in LOG_NAMES else 0x0001}

    def _select_flush_behaviour(self, client: Client, request: Record) -> Known:
        wanted = number(request, "FlushBehaviour")
        if wanted not in FLUSH_BEHAVIOURS:
            return {"CommandError": 0x0001}
        self._flush_behaviour = wanted
        return {"CommandError": 0}

    def _start_remote_access(self, client: Client, request: Record) -> Known:
        if self._remote == REMOTE_ON:
            return {"CommandError": 0x0001}
        self._remote = REMOTE_ON
        self._remote_sessions += 1
        self._machine.changed("GetRemoteAccessStatus")
        return {"CommandError": 0}

    def _stop_remote_access(self, client: Client, request: Record) -> Known:
        if self._remote == REMOTE_OFF:
            return {"CommandError": 0x0001}
        self._remote = REMOTE_OFF
        self._machine.changed("GetRemoteAccessStatus")
        return {"CommandError": 0}

    def _get_remote_access_status(self, client: Client, request: Record) -> Known:
        token = f"SIM-TOKEN-{self._remote_sessions}" if self._remote == REMOTE_ON else ""
        return {"Status": self._remote, "Token": token}

    def _get_remote_connections(self, client: Client, request: Record) -> Known:
        return {"listOfConnections": [{"Connection": "remote support (simulated)"}] * self._remote}
