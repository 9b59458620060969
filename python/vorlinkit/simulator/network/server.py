"""The listening side: accepts clients, lets motors move and time pass, and stops cleanly."""

from __future__ import annotations

import asyncio
import errno
import os
import socket
from collections.abc import Callable, Mapping, Sequence
from itertools import repeat
from typing import Any

from vorlinkit.catalogue import Catalogue

from ..faults.misbehaviour import ScenarioError, payload_size, whole_number
from ..faults.scenario import Scenario, command_id, known_words, parse_text, plain_value, words_of
from ..options import Options
from ..state.clock import Clock
from ..state.machine import Machine
from .bursts import notification_of, numbered
from .connection import ClientConnection
from .events import EventLog

STOP_PATIENCE = 1.0
"""How many seconds clients get to take their last notifications when the simulator stops."""


class ListenError(Exception):
    """The simulator cannot listen; the text says why and what to do."""


class SimulatorServer:
    """One simulated machine behind one listening socket."""

    def __init__(self, catalogue: Catalogue, options: Options, scenario: Scenario, events: EventLog) -> None:
        self.catalogue = catalogue
        self.machine = Machine(catalogue, options.machine, Clock(options.clock))
        self._options = options
        self._scenario = scenario
        self._events = events
        self._connections: dict[int, ClientConnection] = {}
        self._serving: set[asyncio.Task[None]] = set()
        self._accepted = 0
        self._moving = asyncio.Event()
        self._stopped = asyncio.Event()
        self._server: asyncio.Server | None = None

    async def start(self) -> tuple[str, int]:
        """Listen; returns the address. Raises ListenError with a text for the person at the terminal."""
        host, port = self._options.host, self._options.port
        try:
            self._server = await asyncio.start_server(self._accept, host, port, limit=1 << 20)
        except (OSError, UnicodeError) as error:
            raise ListenError(_why_not(host, port, error)) from error
        self.machine.motion_wanted = self._moving.set
        self._background(self._move_motors())
        if self._options.notify_every:
            self._background(self._notify_periodically(self._options.notify_every / 1000))
        bound = self._server.sockets[0].getsockname()
        return str(bound[0]), int(bound[1])

    async def run(self) -> None:
        """Serve until ``stop`` is called."""
        await self._stopped.wait()
        self.machine.stop()
        flushing = [connection.flushed() for connection in self._connections.values()]
        try:
            await asyncio.wait_for(asyncio.gather(*flushing), STOP_PATIENCE)
        except TimeoutError:
            self._events("unflushed")
        if self._server is not None:
            self._server.close()
        for task in list(self._serving):
            task.cancel()
        await asyncio.gather(*self._serving, return_exceptions=True)
        self._events("stopped")

    def stop(self) -> None:
        """Have ``run`` tell the subscribers, close everything and return."""
        self._stopped.set()

    def control(self, line: str) -> None:
        """Carry out one line of a test that drives the simulator; the event that follows says how it went."""
        word, _, rest = line.strip().partition(" ")
        actions: dict[str, Callable[[str], None]] = {
            "rule": self._control_rule,
            "clear-rules": self._control_clear_rules,
            "notify": self._control_notify,
            "close": lambda text: self._control_end("close", text),
            "reset": lambda text: self._control_end("reset", text),
            "half-close": lambda text: self._control_end("half-close", text),
            "stop": self._control_stop,
        }
        try:
            if word not in actions:
                raise ScenarioError(f"{word!r} is not known here; the words are {', '.join(actions)}")
            actions[word](rest)
            self._events("done", line=line.strip())
        except ScenarioError as error:
            self._events("refused", line=line.strip(), reason=str(error))

    def _control_rule(self, text: str) -> None:
        self._scenario.add(parse_text(text), self.catalogue)

    def _control_clear_rules(self, text: str) -> None:
        known_words(words_of(text), ())
        self._scenario.rules.clear()
        self._scenario.connection_rules.clear()

    def _control_stop(self, text: str) -> None:
        known_words(words_of(text), ())
        self.stop()

    def _control_notify(self, text: str) -> None:
        name, _, rest = text.partition(" ")
        words = words_of(rest)
        own = {key: plain_value(words.pop(key)) for key in ("count", "size", "connection") if key in words}
        count, size = whole_number("count", own.get("count", 1), 1), payload_size(own.get("size"))
        command = self.machine.command_with_id(command_id(plain_value(name), self.catalogue) or 0)
        if command is None or command.notification is None:
            raise ScenarioError(f"{name} has no notification")
        if words and size is not None:
            raise ScenarioError(f"say either size or {next(iter(words))}")
        frame = notification_of(self.machine, command, words)
        for connection in self._connections_meant(own):
            made = repeat(frame, count) if size is None else numbered(command.id, count, size)
            connection.send_unsolicited(made, count)

    def _control_end(self, how: Any, text: str) -> None:
        table = parse_text(text)
        known_words(table, ("connection",))
        for connection in self._connections_meant(table):
            connection.end(how)

    def _connections_meant(self, table: Mapping[str, Any]) -> Sequence[ClientConnection]:
        """The connection that a line names, or else all."""
        if "connection" not in table:
            return list(self._connections.values())
        number = whole_number("connection", table["connection"], 1)
        if number not in self._connections:
            raise ScenarioError(f"connection {number} is not open")
        return [self._connections[number]]

    async def _accept(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        assert task is not None
        self._serving.add(task)
        self._accepted += 1
        number = self._accepted
        connection = ClientConnection(number, reader, writer, self.machine, self._scenario, self._events)
        self._connections[number] = connection
        try:
            await connection.run()
        except asyncio.CancelledError:
            pass
        finally:
            self._connections.pop(number, None)
            self._serving.discard(task)

    def _background(self, work: Any) -> None:
        self._serving.add(asyncio.create_task(work))

    async def _move_motors(self) -> None:
        while True:
            await self._moving.wait()
            self._moving.clear()
            more = True
            while more:
                await asyncio.sleep(self._options.motor_interval / 1000)
                more = self.machine.move()

    async def _notify_periodically(self, seconds: float) -> None:
        while True:
            await asyncio.sleep(seconds)
            self.machine.report_all()


def _why_not(host: str, port: int, error: OSError | UnicodeError) -> str:
    if isinstance(error, (UnicodeError, socket.gaierror)):
        return f"Cannot listen on {host}: {getattr(error, 'strerror', 'this is not the name of a host')}."
    if error.errno == errno.EADDRINUSE:
        return (
            f"Port {port} on {host} is already in use, perhaps by another simulator. "
            "Choose another one with --port, or --port 0 for a free one."
        )
    if error.errno == errno.EACCES:
        return f"Port {port} on {host} is not for ordinary users. Choose one above 1023 with --port."
    return f"Cannot listen on {host}, port {port}: {os.strerror(error.errno) if error.errno else error}."


def open_scenario(catalogue: Catalogue, tables: Sequence[Any]) -> Scenario:
    """A scenario of these rules."""
    scenario = Scenario()
    for table in tables:
        scenario.add(table, catalogue)
    return scenario
