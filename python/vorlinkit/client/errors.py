"""What can go wrong, as one tree of exceptions under `VorlinError`.

Texts say what happened, to which command, and what to do. Attributes carry the same for programs. Importing this
needs neither the extension module nor a connection.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

from vorlinkit.wire.frames import MajorError


class VorlinError(Exception):
    """The root: everything that this package raises on its own account.

    `command`: the command's name (``SetMotorPosition``), "" where none is concerned.
    """

    def __init__(self, text: str, *, command: str = "") -> None:
        super().__init__(text)
        self.command = command

    def __reduce__(self) -> tuple[Any, ...]:
        # Keyword-only attributes travel in the state, so that an exception crosses a process boundary whole.
        return _restore, (type(self), self.args), self.__dict__


def _restore(kind: type[VorlinError], args: tuple[Any, ...]) -> VorlinError:
    error = kind.__new__(kind)
    error.args = args
    return error


class Closed(VorlinError):
    """The machine object was closed, by its `with` block or by `close()`; it cannot be used any more."""


class NotConnected(VorlinError):
    """There is no connection at the moment, so the request was not sent."""


class ConnectError(VorlinError, ConnectionError):
    """The first connection could not be made; `reason` is the core's or the system's own text."""

    def __init__(self, text: str, *, reason: str = "") -> None:
        super().__init__(text)
        self.reason = reason


class ConnectionLost(VorlinError, ConnectionError):
    """The connection broke before the answer came.

    `sent`: whether the request may have reached the machine. If it changes something there, look before you repeat it.
    """

    def __init__(self, text: str, *, command: str = "", reason: str = "", sent: bool = True) -> None:
        super().__init__(text, command=command)
        self.reason = reason
        self.sent = sent


class RequestTimeout(VorlinError, TimeoutError):
    """No answer came in time; the machine may have carried the request out all the same. `timeout`: seconds."""

    def __init__(self, text: str, *, command: str = "", timeout: float = 0.0) -> None:
        super().__init__(text, command=command)
        self.timeout = timeout


class ProtocolRefusal(VorlinError):
    """The machine refused the request at the protocol level, whatever it asked; `flags` says why."""

    def __init__(self, text: str, *, command: str = "", flags: MajorError | int = 0) -> None:
        super().__init__(text, command=command)
        self.flags = MajorError(flags)


class CommandRefused(VorlinError):
    """The machine answered with a CommandError that is not 0.

    `code`: its value. `texts`: the machine's own descriptions of it. `response`: the whole response record.
    """

    def __init__(
        self, text: str, *, command: str = "", code: int = 0, texts: Sequence[str] = (), response: Any = None
    ) -> None:
        super().__init__(text, command=command)
        self.code = code
        self.texts = tuple(texts)
        self.response = response


class DecodeError(VorlinError):
    """A payload does not have the layout that the catalogue gives it.

    `field`: path of the field that could not be read (``listOfMotors[1].MotorType``), `offset`: its first byte in
    `payload`. `standing`: how sure the layout is: confirmed, assumed or site-confirmed.
    """

    def __init__(
        self,
        text: str,
        *,
        command: str = "",
        field: str = "",
        offset: int = 0,
        payload: bytes = b"",
        standing: str = "",
    ) -> None:
        super().__init__(text, command=command)
        self.field = field
        self.offset = offset
        self.payload = payload
        self.standing = standing


class EncodeError(VorlinError, ValueError):
    """A value that cannot be sent; nothing was. `field`: its path, `value`: what was given, `limits`: what can be."""

    def __init__(
        self, text: str, *, command: str = "", field: str = "", value: Any = None, limits: str = ""
    ) -> None:
        super().__init__(text, command=command)
        self.field = field
        self.value = value
        self.limits = limits


class ControlLost(VorlinError):
    """Exclusive control, which this block of calls relies on, is gone; the call was not sent."""


class MachineWarning(UserWarning):
    """The machine carried a request out and warned of something (minorError); `flags` of the response say what."""
