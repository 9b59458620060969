"""Exclusive control as one machine object holds it: on which connection, since which command, and whether it is lost."""

from __future__ import annotations

from typing import Final

from .errors import ControlLost

GET: Final = 2
RELEASE: Final = 3
FORCED_GET: Final = 4
GET_WITH_USER: Final = 47
FORCED_GET_WITH_USER: Final = 48
TAKING: Final = (GET, FORCED_GET, GET_WITH_USER, FORCED_GET_WITH_USER)
"""The machine tells whoever loses control by a notification of the command that it was taken with."""


class Control:
    """`blocks`: how many `exclusive_control` blocks are open, one within the other or side by side."""

    def __init__(self) -> None:
        self.blocks = 0
        self.connection = 0
        self.command_id = 0
        self.lost = ""

    def take(self, command_id: int) -> None:
        """This command is being asked for control; what the machine notifies from now on is about that."""
        self.command_id = command_id
        self.lost = ""

    def taken(self, connection: int) -> None:
        self.blocks = 1
        self.connection = connection

    def lose(self, reason: str) -> None:
        """The first reason stays."""
        if self.blocks and not self.lost:
            self.lost = reason

    def notified(self, command_id: int) -> None:
        """A machine notifies the command that control was taken with when somebody else takes it; that may come ahead
        of the answer to the command itself."""
        if command_id == self.command_id and not self.lost:
            self.lost = "the machine says that it was taken away"

    def leave(self) -> bool:
        """One block less; True if it was the last one, and there is control to give back."""
        self.blocks = max(0, self.blocks - 1)
        return self.blocks == 0 and not self.lost

    def check(self, command: str, host: str) -> None:
        """Raises ControlLost in a block that relies on control that is gone."""
        if self.blocks and self.lost:
            raise ControlLost(
                f"{command} was not sent to {host}: exclusive control is gone ({self.lost}). "
                "Leave the `with` block, look at what was set, and take control again.",
                command=command,
            )
