"""Lines of control: how a test drives the simulator while it runs."""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from itertools import repeat
from typing import Any, Protocol

from ..answer import Ending
from ..faults.actions import payload_size, whole_number
from ..faults.misbehaviour import ScenarioError
from ..faults.scenario import Scenario, known_words, parse_text, plain_value, words_of
from ..state.machine import Machine
from .bursts import notification_of, numbered
from .connection import ClientConnection
from .events import EventLog
from .given import assignments, command_named, state


class Driven(Protocol):
    """The server, as lines of control drive it."""

    machine: Machine
    scenario: Scenario

    @property
    def connections(self) -> Mapping[int, ClientConnection]: ...
    def take_control(self) -> None: ...
    def release_control(self) -> None: ...
    def restart(self, seconds: float) -> None: ...
    def stop(self) -> None: ...


class ControlLines:
    """Carries out one line after the other, on the event loop; the event that follows says how it went."""

    def __init__(self, server: Driven, events: EventLog) -> None:
        self._server = server
        self._events = events
        self._actions: Mapping[str, Callable[[str], None]] = {
            "rule": self._rule,
            "clear-rules": self._clear_rules,
            "set": self._set,
            "notify": self._notify,
            "take-control": lambda text: self._plain(text, self._server.take_control),
            "release-control": lambda text: self._plain(text, self._server.release_control),
            "restart": self._restart,
            "mark": lambda text: None,
            "close": lambda text: self._end("close", text),
            "reset": lambda text: self._end("reset", text),
            "half-close": lambda text: self._end("half-close", text),
            "stop": lambda text: self._plain(text, self._server.stop),
        }

    def __call__(self, line: str) -> None:
        word, _, rest = line.strip().partition(" ")
        try:
            if word not in self._actions:
                raise ScenarioError(f"{word!r} is not known here; the words are {', '.join(self._actions)}")
            self._actions[word](rest)
            self._events("done", line=line.strip())
        except ScenarioError as error:
            self._events("refused", line=line.strip(), reason=str(error))

    def _plain(self, text: str, action: Callable[[], None]) -> None:
        known_words(words_of(text), ())
        action()

    def _rule(self, text: str) -> None:
        self._server.scenario.add(parse_text(text), self._server.machine.catalogue)

    def _clear_rules(self, text: str) -> None:
        known_words(words_of(text), ())
        self._server.scenario.rules.clear()
        self._server.scenario.connection_rules.clear()

    def _set(self, text: str) -> None:
        name, _, rest = text.strip().partition(" ")
        if not name:
            raise ScenarioError("say what to set: set COMMAND [FIELD=VALUE ...]")
        command = command_named(name, self._server.machine)
        self._server.machine.preset(command, *state(command, assignments(rest)))

    def _notify(self, text: str) -> None:
        name, _, rest = text.strip().partition(" ")
        words = assignments(rest)
        own = {
            key: plain_value(str(words.pop(key))) for key in ("count", "size", "connection") if key in words
        }
        count, size = whole_number("count", own.get("count", 1), 1), payload_size(own.get("size"))
        command = command_named(name, self._server.machine)
        if command.notification is None:
            raise ScenarioError(f"{name} has no notification")
        if words and size is not None:
            raise ScenarioError(f"say either size or {next(iter(words))}")
        frame = notification_of(self._server.machine, command, words)
        for connection in self._connections_meant(own):
            made = repeat(frame, count) if size is None else numbered(command.id, count, size)
            connection.send_unsolicited(made, count)

    def _restart(self, text: str) -> None:
        table = parse_text(text)
        known_words(table, ("away",))
        self._server.restart(whole_number("away", table.get("away", 0), 0) / 1000)

    def _end(self, how: Ending, text: str) -> None:
        table = parse_text(text)
        known_words(table, ("connection",))
        for connection in self._connections_meant(table):
            connection.end(how)

    def _connections_meant(self, table: Mapping[str, Any]) -> Sequence[ClientConnection]:
        """The connection that a line names, or else all."""
        if "connection" not in table:
            return list(self._server.connections.values())
        number = whole_number("connection", table["connection"], 1)
        if number not in self._server.connections:
            raise ScenarioError(f"connection {number} is not open")
        return [self._server.connections[number]]
