"""The core's log records, as records of Python's logging."""

from __future__ import annotations

import logging
from typing import Final

TRACE: Final = 5
_LEVELS: Final = (TRACE, logging.DEBUG, logging.INFO, logging.WARNING, logging.ERROR, logging.CRITICAL)
_OFF: Final = 6
_REPEATED: Final = ("VORLIN protocol error (majorError): ", "VORLIN protocol warning (minorError): ")
"""The client says the same at warning, and names the command."""


def core_level(logger: logging.Logger) -> int:
    """The least level of the core that this logger wants to hear."""
    wanted = logger.getEffectiveLevel()
    return next((level for level, name in enumerate(_LEVELS) if name >= wanted), _OFF)


def hand_on(
    logger: logging.Logger,
    closing: bool,
    level: int,
    file: str,
    line: int,
    function: str,
    text: str,
    created: float,
) -> None:
    """One record of the core. `closing`: the user has ended the connection, so its end is nothing to warn of."""
    number = _LEVELS[min(level, len(_LEVELS) - 1)]
    if closing:
        number = min(number, logging.INFO)
    elif text.startswith(_REPEATED):
        number = logging.DEBUG
    if not logger.isEnabledFor(number):
        return
    record = logger.makeRecord(logger.name, number, file, line, text, (), None, function)
    record.relativeCreated += (created - record.created) * 1000
    record.created, record.msecs = created, created % 1 * 1000
    logger.handle(record)
