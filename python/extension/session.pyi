"""Client for machines that speak VORLIN: the session, and every command of the machine as typed records.

A list attribute reads as a new list whose elements look at the stored items: setting an attribute of an
element changes the record, appending to the list does not. A variant reads the same way. Assigning a list or a
variant stores copies; elements that were read before keep what they looked at.

Records take their attributes as keywords when they are made, compare by content, and can be copied and pickled.
"""

from collections.abc import Callable, Sequence
from typing import Any, ClassVar, Generic, Literal, NoReturn, Self, TypeVar, overload  # noqa: F401, as records use Self

_Item = TypeVar("_Item")

class _ListOf(Generic[_Item]):
    """A list attribute of a record: reads as a new list, takes any sequence of its items."""

    @overload
    def __get__(self, instance: None, owner: type) -> _ListOf[_Item]: ...
    @overload
    def __get__(self, instance: object, owner: type | None = None) -> list[_Item]: ...
    def __set__(self, instance: object, value: Sequence[_Item]) -> None: ...

class LogLevel:
    """Importance of a log record, ascending. `off` as a threshold silences everything."""

    trace: ClassVar[LogLevel]
    debug: ClassVar[LogLevel]
    info: ClassVar[LogLevel]
    warn: ClassVar[LogLevel]
    err: ClassVar[LogLevel]
    critical: ClassVar[LogLevel]
    off: ClassVar[LogLevel]
    __members__: ClassVar[dict[str, LogLevel]]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    def __index__(self) -> int: ...
    def __eq__(self, other: object) -> bool: ...
    def __ne__(self, other: object) -> bool: ...
    def __hash__(self) -> int: ...
    def __getstate__(self) -> int: ...
    def __setstate__(self, state: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

trace: LogLevel
debug: LogLevel
info: LogLevel
warn: LogLevel
err: LogLevel
critical: LogLevel
off: LogLevel

class IVorlinLogger:
    """Receives the log records of a session.

    Derive from it and define `log(self, level: LogLevel, file: str, line: int, message: str) -> None`. A class
    without `log` logs nothing. Keep the object alive as long as records are wanted.
    """

    def __init__(self) -> None: ...
    def set_log_level(self, level: LogLevel) -> None:
        """Set the threshold: records below `level` are not passed to `log`."""
    def get_log_level(self) -> LogLevel:
        """The threshold; `LogLevel.info` unless set otherwise."""

class SessionConfig:
    """Everything that can be set about a session."""

    def __init__(self) -> None: ...
    host: str
    """Name or numeric address of the machine's control server; ValueError for a 0 byte. Default "localhost"."""
    port: int
    """TCP port of the control server, 0 to 65535. Default 50713."""
    connection_timeout: int
    """Milliseconds one connect attempt may take, name lookup included. Default 3000."""
    request_timeout: int
    """Milliseconds the machine may take to answer one attempt of a request, from when it is written. Default 15000."""
    request_attempts: int
    """Attempts per request, the first included; 0 counts as 1. Default 1."""
    reconnect_delay: int
    """Milliseconds to wait before each re-connect. Default 1000."""
    _reconnect_delay_max: int
    auto_reconnect: bool
    """Re-connect after a failed connect or a lost connection, until `disconnect`. Default True."""
    access_keys: tuple[int, int, int, int]
    """Four ints, 0 to 255; carried only. A tuple of any other length is ignored. Default (90, 195, 30, 135)."""

class CodedValueKind:
    """How a coded field is read: `Enum`, one of the listed codes; `Bitfield`, a set of flags."""

    Enum: ClassVar[CodedValueKind]
    Bitfield: ClassVar[CodedValueKind]
    __members__: ClassVar[dict[str, CodedValueKind]]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    def __index__(self) -> int: ...
    def __eq__(self, other: object) -> bool: ...
    def __ne__(self, other: object) -> bool: ...
    def __hash__(self) -> int: ...
    def __getstate__(self) -> int: ...
    def __setstate__(self, state: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

Enum: CodedValueKind
Bitfield: CodedValueKind

class FrameDirection:
    """Which way a frame travels: `Tx`, about to be written to the machine; `Rx`, just received."""

    Tx: ClassVar[FrameDirection]
    Rx: ClassVar[FrameDirection]
    __members__: ClassVar[dict[str, FrameDirection]]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    def __index__(self) -> int: ...
    def __eq__(self, other: object) -> bool: ...
    def __ne__(self, other: object) -> bool: ...
    def __hash__(self) -> int: ...
    def __getstate__(self) -> int: ...
    def __setstate__(self, state: int) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

Tx: FrameDirection
Rx: FrameDirection

class FieldCodedValue:
    """One row of a coded field's table. A copy: changing it changes no table. Comes only from the library."""

    def __init__(self, *args: object, **kwargs: object) -> NoReturn: ...
    code: int
    """Field value or flag mask, 0 to 65535."""
    @property
    def description(self) -> str:
        """What the code means, in the machine's words."""

class FieldCodedValues:
    """The known codes of a coded field. Comes only from the library."""

    def __init__(self, *args: object, **kwargs: object) -> NoReturn: ...
    kind: CodedValueKind
    """Whether the codes are values or flags."""
    @property
    def values(self) -> list[FieldCodedValue]:
        """A new list of the rows, in the order of the protocol."""

class _EventQueue:
    def __init__(self) -> None: ...
    def take(self) -> list[tuple[Any, ...]]: ...
    def wait(self, timeout: float | None) -> list[tuple[Any, ...]]: ...
    def wake(self) -> None: ...
    def fileno(self) -> int: ...
    def dropped(self) -> int: ...

class _EventLogger(IVorlinLogger):
    def __init__(self, queue: _EventQueue) -> None: ...

class VorlinSession:
    """A session with a machine's control server: one connection, one I/O thread."""

    def __init__(self, config: SessionConfig, logger: IVorlinLogger | None = None) -> None:
        """Make a session; it does not connect yet. The configuration is copied."""
    def connect(self) -> tuple[bool, str]:
        """Connect and wait for the outcome: (True, "") or (False, error text)."""
    def disconnect(self) -> None:
        """Close the connection, end re-connecting, and wait until both are done; in a callback only start that."""
    def is_connected(self) -> bool:
        """Whether the connection is up."""
    def client_id(self) -> int:
        """The id the machine gave this connection, 1 to 255; 0 while unknown."""
    def on_connection_state_changed(self, callback: Callable[[bool, str], object]) -> None:
        """Have `callback(connected, reason)` called on every change of the connection, on the I/O thread."""
    def send(
        self, commandId: int, payload: bytes | None = None
    ) -> tuple[bytes, Literal[""]] | tuple[None, str]:
        """Send a request and wait: (response payload, "") or (None, error text)."""
    def on_notification(self, commandId: int, callback: Callable[[bytes], object]) -> None:
        """Have `callback(payload)` called for every notification of one command, on the I/O thread."""
    def on_frame(self, callback: Callable[[FrameDirection, bytes], object]) -> None:
        """Have `callback(direction, frame)` called for every frame sent and received, on the I/O thread."""
    def _attach(self, queue: _EventQueue) -> None: ...
    def _request(
        self, command_id: int, payload: bytes, timeout_ms: int, connection: int
    ) -> tuple[int, str, bytes, int, int]: ...
    def _send(
        self, command_id: int, payload: bytes, timeout_ms: int, connection: int, token: object
    ) -> None: ...
    def _start_connect(self, token: object) -> None: ...
    def _start_disconnect(self, token: object) -> None: ...
    def _watch(self, command_id: int) -> None: ...
    def _close(self) -> None: ...
