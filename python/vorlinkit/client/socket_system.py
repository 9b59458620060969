"""What a link on sockets asks of the system: addresses, options of a connection, texts of errors."""

from __future__ import annotations

import os
import socket
import sys
import threading
from collections.abc import Callable
from typing import Final

from .socket_connecting import Address

_KEEP_ALIVE: Final = {"TCP_KEEPIDLE": 15, "TCP_KEEPALIVE": 15, "TCP_KEEPINTVL": 5, "TCP_KEEPCNT": 3}


class NameLookup:
    """Finds the addresses of a host, on a thread of its own: the system's look-up cannot be ended and may hang for
    as long as a name server is silent. An abandoned one ends by itself some time later."""

    def __init__(self, host: str, port: int, wake: Callable[[], None]) -> None:
        self._host = host
        self._port = port
        self._wake = wake
        self._lock = threading.Lock()
        self._running = False
        self._found: tuple[list[Address], str] | None = None

    def find(self) -> tuple[list[Address], str] | None:
        """The addresses at once if the host is a number, else None, and they can be taken later. A thread that an
        abandoned look-up left behind is waited for instead of starting another one."""
        addresses, failure = _look_up(self._host, self._port, socket.AI_NUMERICHOST)
        if addresses:
            return addresses, failure
        with self._lock:
            self._found = None
            if self._running:
                return None
            try:
                threading.Thread(target=self._run, name="vorlinkit look-up", daemon=True).start()
            except RuntimeError:  # there are too many threads, or the interpreter ends
                return [], "Resource temporarily unavailable"
            self._running = True
        return None

    def take(self) -> tuple[list[Address], str] | None:
        return self._found

    def _run(self) -> None:
        found = _look_up(self._host, self._port, 0)
        with self._lock:
            self._running = False
            self._found = found
        self._wake()


def _look_up(host: str, port: int, flags: int) -> tuple[list[Address], str]:
    """The addresses, or why there are none."""
    try:
        found = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM, flags=flags)
        return [(family, address) for family, _, _, _, address in found], ""
    except socket.gaierror as error:
        texts = {
            socket.EAI_NONAME: "Host not found (authoritative)",
            socket.EAI_AGAIN: "Host not found (non-authoritative), try again later",
        }
        return [], texts.get(error.errno or 0) or text_of(error)
    except (OSError, ValueError) as error:  # a name with a 0 in it, or one that no host can have
        return [], text_of(error) if isinstance(error, OSError) else "Invalid argument"


def prepare(sock: socket.socket, stall_limit: float) -> None:
    """What cannot be set is left as it is."""
    options = [(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1), (socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)]
    for name, value in _KEEP_ALIVE.items():
        if hasattr(socket, name):
            options.append((socket.IPPROTO_TCP, getattr(socket, name), value))
    if hasattr(socket, "TCP_USER_TIMEOUT"):
        longest = min(int(stall_limit * 1000), 2**31 - 1)
        options.append((socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT, longest))
    for level, option, value in options:
        try:
            sock.setsockopt(level, option, value)
        except OSError:
            pass


def unacknowledged(sock: socket.socket) -> int:
    """The bytes that the system has taken and the peer has not acknowledged, 0 where it does not say."""
    try:
        if sys.platform == "linux":
            import fcntl
            import termios

            return int.from_bytes(fcntl.ioctl(sock, termios.TIOCOUTQ, bytes(4)), sys.byteorder)
        if sys.platform == "darwin":
            return sock.getsockopt(socket.SOL_SOCKET, 0x1024)  # SO_NWRITE
    except OSError:
        pass
    return 0


def text_of(error: OSError) -> str:
    return error.strerror or str(error)


def text_of_code(code: int) -> str:
    if sys.platform == "win32":
        import ctypes

        return ctypes.FormatError(code)
    return os.strerror(code)
