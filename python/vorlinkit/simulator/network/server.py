"""The listening side: accepts clients, lets motors move and time pass, and stops cleanly."""

from __future__ import annotations

import asyncio
import errno
import os
import socket
import time
from collections.abc import Coroutine, Sequence
from typing import Any, Final

from vorlinkit.catalogue import Catalogue

from ..faults.misbehaviour import ScenarioError
from ..faults.scenario import Scenario
from ..options import Options
from ..state.clock import Clock
from ..state.machine import Machine
from ..state.visitor import Visitor
from .connection import ClientConnection
from .control import ControlLines
from .events import EventLog

STOP_PATIENCE = 1.0
"""How many seconds clients get to take their last notifications when the simulator stops."""
REBIND_PATIENCE: Final = 5.0
REBIND_PAUSE: Final = 0.02
"""How many seconds a restarted machine tries to get its port back, and how often."""
LARGEST_READ: Final = 1 << 20


class ListenError(Exception):
    """The simulator cannot listen; the text says why and what to do."""


class SimulatorServer:
    """One simulated machine behind one listening socket."""

    def __init__(self, catalogue: Catalogue, options: Options, scenario: Scenario, events: EventLog) -> None:
        self.catalogue = catalogue
        self.machine = Machine(catalogue, options.machine, Clock(options.clock))
        self.control = ControlLines(self, events)
        """Carries out one line of a test that drives the simulator."""
        self._visitor = Visitor(self.machine)
        self._options = options
        self.scenario = scenario
        self._events = events
        self.connections: dict[int, ClientConnection] = {}
        self._serving: set[asyncio.Task[None]] = set()
        self._accepted = 0
        self._moving = asyncio.Event()
        self._stopped = asyncio.Event()
        self._server: asyncio.Server | None = None
        self._address = (options.host, options.port)

    async def start(self) -> tuple[str, int]:
        """Listen; returns the address. Raises ListenError with a text for the person at the terminal."""
        host, port = self._options.host, self._options.port
        try:
            self._server = await asyncio.start_server(self._accept, host, port, limit=LARGEST_READ)
        except (OSError, UnicodeError) as error:
            raise ListenError(_why_not(host, port, error)) from error
        self.machine.motion_wanted = self._moving.set
        self._background(self._move_motors())
        if self._options.notify_every:
            self._background(self._notify_periodically(self._options.notify_every / 1000))
        bound = self._server.sockets[0].getsockname()
        self._address = (host, int(bound[1]))
        return str(bound[0]), int(bound[1])

    async def run(self) -> None:
        """Serve until ``stop`` is called."""
        await self._stopped.wait()
        self.machine.stop()
        flushing = [connection.flushed() for connection in self.connections.values()]
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

    def take_control(self) -> None:
        """Another client forces control away from whoever has it."""
        self._visitor.take_control()

    def release_control(self) -> None:
        """That other client gives control back."""
        self._visitor.leave()

    def restart(self, seconds: float) -> None:
        """Lose all connections and whatever belongs to them, and listen again after so many seconds."""
        if self._server is None or not self._server.is_serving():
            raise ScenarioError("the machine is restarting already")
        self._events("restarting", away=seconds)
        self._server.close()
        for connection in list(self.connections.values()):
            connection.cut()
        self._visitor.leave()
        self.machine.restart()
        self._background(self._come_back(seconds))

    async def _come_back(self, seconds: float) -> None:
        host, port = self._address
        await asyncio.sleep(seconds)
        patience = time.monotonic() + REBIND_PATIENCE
        while True:
            try:
                self._server = await asyncio.start_server(self._accept, host, port, limit=LARGEST_READ)
                break
            except OSError as error:  # the port may not be free yet, and may have gone to somebody else
                if time.monotonic() > patience:
                    self._events("stopping", reason=_why_not(host, port, error))
                    self.stop()
                    return
            await asyncio.sleep(REBIND_PAUSE)
        self._events("restarted")

    async def _accept(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        assert task is not None
        self._serving.add(task)
        self._accepted += 1
        number = self._accepted
        connection = ClientConnection(number, reader, writer, self, self.scenario, self._events)
        self.connections[number] = connection
        try:
            await connection.run()
        except asyncio.CancelledError:
            pass
        finally:
            self.connections.pop(number, None)
            self._serving.discard(task)

    def _background(self, work: Coroutine[Any, Any, None]) -> None:
        task = asyncio.create_task(work)
        self._serving.add(task)
        task.add_done_callback(self._serving.discard)

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
