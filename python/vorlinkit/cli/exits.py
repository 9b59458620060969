"""Exit codes, and which error ends with which."""

from __future__ import annotations

from typing import Final

OK: Final = 0
REFUSED: Final = 1
USAGE: Final = 2
NO_CONNECTION: Final = 3
TIME_OUT: Final = 4
PROTOCOL: Final = 5
BUG: Final = 70


class UsageError(Exception):
    """The command line asks for something that cannot be done as it stands; the text says what to change."""


def code_of(error: Exception) -> int:
    """The exit code of an error; BUG for one that nobody foresaw."""
    from vorlinkit.catalogue import CatalogueError
    from vorlinkit.client import errors

    codes: tuple[tuple[type[Exception], int], ...] = (
        (UsageError, USAGE),
        (CatalogueError, USAGE),
        (errors.EncodeError, USAGE),
        (errors.CommandRefused, REFUSED),
        (errors.ProtocolRefusal, REFUSED),
        (errors.ControlLost, REFUSED),
        (errors.RequestTimeout, TIME_OUT),
        (errors.ConnectError, NO_CONNECTION),
        (errors.ConnectionLost, NO_CONNECTION),
        (errors.NotConnected, NO_CONNECTION),
        (errors.Closed, NO_CONNECTION),
        (errors.VorlinError, PROTOCOL),
    )
    return next((code for kind, code in codes if isinstance(error, kind)), BUG)
