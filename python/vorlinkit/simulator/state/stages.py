"""How a task that reports on itself runs: it begins, it is half done, it is done."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Final

from vorlinkit.catalogue import Command
from vorlinkit.wire.records import Record

OVERVIEWS: Final = (1, 2, 4)
"""Pending, in progress, completed, of the coded overview of a calibration."""


def stages(command: Command) -> Sequence[Record]:
    """The values that go through the notifications of a command, one record per notification.

    A command that starts a task and reports how far it is reports three times, every other command once.
    """
    if not command.progress:
        return ({},)
    return tuple(
        {command.progress: percent, "Overview": overview}
        for percent, overview in zip((0, 50, 100), OVERVIEWS, strict=True)
    )
