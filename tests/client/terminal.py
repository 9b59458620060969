"""Runs a command line at a terminal of its own, as a user would."""

from __future__ import annotations

import fcntl
import os
import pty
import re
import struct
import subprocess
import sys
import termios
from collections.abc import Mapping, Sequence

COLUMNS = 110
VORLINKIT = (sys.executable, "-m", "vorlinkit")


def at_terminal(
    words: Sequence[str], answers: Mapping[str, str] | None = None, **environment: str
) -> tuple[int, str]:
    """The exit code, and everything that was shown. `answers`: what is typed once a text was shown."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 50, COLUMNS, 0, 0))
    settings = {"TERM": "xterm", **environment}
    with subprocess.Popen(
        words,
        stdin=slave,
        stdout=slave,
        stderr=slave,
        env={**{k: v for k, v in os.environ.items() if k != "NO_COLOR"}, **settings},
        start_new_session=True,
    ) as process:
        os.close(slave)
        shown, waiting = "", dict(answers or {})
        while more := _read(master):
            shown += more
            for text in [text for text in waiting if text in shown]:
                os.write(master, waiting.pop(text).encode())
        code = process.wait(30)
    os.close(master)
    return code, shown.replace("\r\n", "\n")


def _read(master: int) -> str:
    try:
        return os.read(master, 65536).decode()
    except OSError:  # the last of those who had the terminal open has gone
        return ""


def without_colours(text: str) -> str:
    return re.sub(r"\x1b\[[0-9;]*m", "", text)
