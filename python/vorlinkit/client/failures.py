"""What an outcome that is not OK is raised as, in words for whoever reads them in the log."""

from __future__ import annotations

from typing import Any, Final

from vorlinkit.wire.frames import MajorError, MinorError

from . import link
from .errors import (
    Closed,
    CommandRefused,
    ConnectionLost,
    DecodeError,
    EncodeError,
    NotConnected,
    ProtocolRefusal,
    RequestTimeout,
    VorlinError,
)

NOT_CONNECTED: Final = "Not connected"
"""The core's text for a request that was not sent, as its connection is not there."""

_ADVICE: Final = {
    MajorError.ExclusiveControlRequired: "Take control first: `with machine.exclusive_control(): ...`.",
    MajorError.ControlBlocked: "Another client has exclusive control; "
    "`exclusive_control(force=True)` takes it away from that client.",
    MajorError.ClientIdRequired: "Connect with client_id=True, which is the default.",
    MajorError.UnsupportedCommandId: "This machine does not know the command; `get_supported_commands()` lists what it knows.",
    MajorError.DataLengthMismatch: "The machine expects another layout of this request; "
    "see docs/correcting-a-layout.md.",
}


def failure(command: str, host: str, outcome: tuple[Any, ...], timeout: float) -> VorlinError:
    """The exception for an outcome that is not OK."""
    code, text, _, major, _ = outcome
    if code == link.TRANSPORT:
        return _transport(command, host, text)
    if code == link.TIMEOUT:
        return RequestTimeout(
            f"{command}: {host} did not answer within {timeout:g} s. It may have carried the request out all the same.",
            command=command,
            timeout=timeout,
        )
    if code == link.PROTOCOL and major:
        return refused(command, host, MajorError(major))
    if code == link.STOPPED:
        return Closed(
            f"{command}: the connection to {host} was closed while the request waited.", command=command
        )
    if code == link.ENCODE:
        return EncodeError(f"{command} was not sent to {host}: {text}", command=command)
    return DecodeError(f"{command}: what {host} answered is no VORLIN response: {text}", command=command)


def _transport(command: str, host: str, text: str) -> VorlinError:
    if text == NOT_CONNECTED:
        return not_connected(command, host)
    return ConnectionLost(
        f"{command}: the connection to {host} broke before the answer came ({text}). "
        "The machine may have carried the request out: look before you repeat it.",
        command=command,
        reason=text,
    )


def not_connected(command: str, host: str, why: str = "") -> NotConnected:
    reason = f" ({why})" if why else ""
    return NotConnected(
        f"{command} was not sent: there is no connection to {host} at the moment{reason}.", command=command
    )


def refused(command: str, host: str, flags: MajorError) -> ProtocolRefusal:
    advice = " ".join(text for flag, text in _ADVICE.items() if flag in flags)
    return ProtocolRefusal(
        f"{command}: {host} refused the request: {names(flags)}. {advice}".rstrip(),
        command=command,
        flags=flags,
    )


def command_refused(
    command: str, host: str, code: int, texts: tuple[str, ...], response: Any
) -> CommandRefused:
    said = "; ".join(texts) or "no text is known for it"
    return CommandRefused(
        f"{command}: {host} refused: {said} (CommandError 0x{code:04X})",
        command=command,
        code=code,
        texts=texts,
        response=response,
    )


def another_answer(command: str, host: str, timeout: float) -> RequestTimeout:
    return RequestTimeout(
        f"{command}: what {host} sent is about another object than was asked for, so it is no answer to this request. "
        "The machine may have carried the request out all the same. "
        '(A machine that never repeats what it was asked needs late_answers="ignore".)',
        command=command,
        timeout=timeout,
    )


def warning(command: str, host: str, minor: int) -> str:
    return f"{command}: {host} carried the request out and warns: {names(MinorError(minor))}"


def names(flags: MajorError | MinorError) -> str:
    """The flags' names, and the bits that have none in hexadecimal."""
    known = [flag for flag in type(flags) if int(flag) & int(flags)]
    rest = int(flags) & ~sum(int(flag) for flag in known)
    return " | ".join([*(str(flag.name) for flag in known), *([f"0x{rest:08X}"] if rest else [])])
