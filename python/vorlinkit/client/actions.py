"""What decisions ask for: they are generators that yield an action and are sent its outcome.

Whoever drives one carries its actions out, with threads or on an event loop. Between two actions nothing else may be
decided about the same machine, so what a decision has read holds until it yields.
"""

from __future__ import annotations

from collections.abc import Generator
from typing import Any, NamedTuple, TypeVar

T = TypeVar("T")


class Ask(NamedTuple):
    """Send a request on this connection and wait for its outcome, a tuple in the order of `link.Outcome`.

    `in_order`: go on only when everything has been looked at that the machine had sent before its answer.
    """

    command_id: int
    payload: bytes
    timeout: float
    connection: int
    in_order: bool = False


class AwaitChange(NamedTuple):
    """Wait until the connection's state has changed since its `version`, or for `timeout` seconds. No outcome."""

    version: int
    timeout: float


class Connect(NamedTuple):
    """Connect for the first time; the outcome is the link's."""


class GiveUp(NamedTuple):
    """End the connection, and make another one if connections are restored at all. No outcome."""


Action = Ask | AwaitChange | Connect | GiveUp
Steps = Generator[Action, Any, T]
