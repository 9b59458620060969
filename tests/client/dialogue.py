"""Plays decisions without sockets, threads or clocks: each action that a decision asks for meets what a line says."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from vorlinkit.client import plans
from vorlinkit.client.actions import Action, Ask, AwaitChange, Steps
from vorlinkit.client.calls import call, call_of
from vorlinkit.client.conversation import Conversation, MachineEvent, Options
from vorlinkit.client.errors import VorlinError
from vorlinkit.client.handshake import handshake

Happens = tuple[Any, ...] | Callable[["Machine"], Any] | None

TIMEOUT = (2, "Request timeout", b"", 0, 0)
LOST = (1, "Connection lost", b"", 0, 0)
UNSENT = (1, "Not connected", b"", 0, 0)
REFUSED = (3, "refused", b"", 0x20, 0)
JUNK = (3, "Invalid protocol ID (expected 'VR')", b"", 0, 0)


def ok(payload: bytes = b"", minor: int = 0) -> tuple[Any, ...]:
    return (0, "", payload, 0, minor)


def position(device: str = "AD1", error: int = 0) -> tuple[Any, ...]:
    """An answer to GetMotorPosition or, as it happens, SetMotorPosition."""
    tail = b"\x01\x00\x07\x00\x07"
    return ok(error.to_bytes(2, "big") + device.encode() + b"\0" + tail)


def target(device: str = "AD1") -> tuple[Any, ...]:
    return ok(b"\0\0" + device.encode() + b"\0\x01\x01\x2c")


class Machine:
    """A conversation on connection 1, with a clock that only `later` moves."""

    def __init__(self, *, ready: bool = True, **options: Any) -> None:
        self.now = 100.0
        self.told: list[MachineEvent] = []
        options.setdefault("timeout", 10.0)
        options.setdefault("client_id", False)
        self.talk = Conversation(Options("m", **options), lambda: self.now, lambda: None, self.told.append)
        if ready:
            self.comes(1)

    def comes(self, connection: int) -> None:
        """A connection whose handshake asks nothing."""
        self.talk.connected(connection)
        assert self.plays(handshake(self.talk, connection)) is None

    def goes(self, reason: str = "cable") -> None:
        self.talk.lost(reason)

    def later(self, seconds: float) -> None:
        self.now += seconds

    def call(self, name: str, *values: Any, check: bool = True, sent: Any = None) -> Steps[Any]:
        plan = getattr(plans, name)
        wanted = call_of(self.talk, plan, values, plan.encode(values), self.talk.options.timeout, check)
        return call(self.talk, wanted, sent)

    def plays(self, steps: Steps[Any], *lines: tuple[str, Happens]) -> Any:
        """The result of a decision, or the error that it raises."""
        outcome: Any = None
        try:
            for expected, happens in lines:
                action = steps.send(outcome)
                assert shown(action) == expected
                outcome = happens(self) if callable(happens) else happens
            left = steps.send(outcome)
        except StopIteration as end:
            return end.value
        except VorlinError as error:
            return error
        raise AssertionError(f"goes on with {shown(left)}")


def shown(action: Action) -> str:
    if isinstance(action, Ask):
        return f"ask {action.command_id} on {action.connection}"
    return f"wait {action.timeout:g}" if isinstance(action, AwaitChange) else type(action).__name__
