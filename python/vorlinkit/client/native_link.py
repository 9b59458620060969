"""The connection by the compiled session of `vorlinkit_python`."""

from __future__ import annotations

import math
from functools import lru_cache

import vorlinkit_python as core

from vorlinkit.client.link import EventQueue, LinkOptions

_LONGEST = 2**31 - 1  # milliseconds, that a configuration takes


@lru_cache(maxsize=64)
def _milliseconds(seconds: float) -> int:
    """Rounded up, so that a short time does not become none."""
    return math.ceil(min(seconds * 1000, _LONGEST))


def _config(options: LinkOptions) -> core.SessionConfig:
    config = core.SessionConfig()
    config.host = options.host
    config.port = options.port
    config.connection_timeout = _milliseconds(options.connect_timeout)
    config.request_timeout = _milliseconds(options.request_timeout)
    config.request_attempts = 1
    config.reconnect_delay = _milliseconds(options.reconnect_delay)
    config._reconnect_delay_max = _milliseconds(options.reconnect_delay_max)
    config.auto_reconnect = options.reconnect
    return config


class NativeLink:
    """A `Link` whose thread is the session's I/O thread, which never waits for the interpreter."""

    def __init__(self, options: LinkOptions) -> None:
        self._queue = core._EventQueue()
        self._logger = core._EventLogger(self._queue)
        self.set_log_level(options.log_level)
        self._session = core.VorlinSession(_config(options), self._logger)
        self._session._attach(self._queue)
        self._request = self._session._request

    @property
    def events(self) -> EventQueue:
        return self._queue

    def connect(self, token: object) -> None:
        self._session._start_connect(token)

    def disconnect(self, token: object) -> None:
        self._session._start_disconnect(token)

    def request(
        self, command_id: int, payload: bytes, timeout: float, connection: int
    ) -> tuple[int, str, bytes, int, int]:
        return self._request(command_id, payload, _milliseconds(timeout), connection)

    def send(self, command_id: int, payload: bytes, timeout: float, connection: int, token: object) -> None:
        self._session._send(command_id, payload, _milliseconds(timeout), connection, token)

    def watch(self, command_id: int) -> None:
        self._session._watch(command_id)

    def set_log_level(self, level: int) -> None:
        self._logger.set_log_level(core.LogLevel(level))

    def client_id(self) -> int:
        return self._session.client_id()

    def close(self) -> None:
        self._session._close()
