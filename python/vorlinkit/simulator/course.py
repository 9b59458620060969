"""How a task that reports on itself runs: it begins, it is half done, it is done."""

from __future__ import annotations

import re
from collections.abc import Sequence
from typing import Final

from vorlinkit.catalogue import Command, ScalarField

from .records import Record

_PROGRESS: Final = re.compile(r"^Percent(age)?(Complete|Done)?$")
_TASK: Final = re.compile(r"^(?!Get|Is|Read|Request|Recall)")
OVERVIEWS: Final = (1, 2, 4)
"""Pending, in progress, completed, of the coded overview of a calibration."""


def course(command: Command) -> Sequence[Record]:
    """The values that go through the notifications of a command, one record per notification.

    A command that starts something and reports how far it is reports three times, every other command once.
    """
    fields = command.notification.fields if command.notification is not None else ()
    progress = next(
        (one.key for one in fields if isinstance(one, ScalarField) and _PROGRESS.match(one.key)), None
    )
    if progress is None or not _TASK.match(command.name):
        return ({},)
    return tuple(
        {progress: percent, "Overview": overview}
        for percent, overview in zip((0, 50, 100), OVERVIEWS, strict=True)
    )
