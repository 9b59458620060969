"""What a terminal shows while something takes longer than a second: a line that tells for how long, or a bar."""

from __future__ import annotations

import importlib
import os
import sys
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from types import TracebackType
from typing import Any, Final, Protocol, TextIO

PATIENCE: Final = 1.0
"""Seconds without a word."""
TICK: Final = 0.5
CELLS: Final = 24
NARROWEST: Final = 80
MEASURED: Final = "{desc} {percentage:3.0f}% |{bar}| {elapsed}, {remaining} left"


class Painter(Protocol):
    """Draws the one line, and takes it away."""

    def draw(self, seconds: float, fraction: float | None) -> None: ...
    def clear(self) -> None: ...
    def close(self) -> None: ...


class Waiting:
    """Shows that we wait for `what`, from the second second of its `with` block on, if standard error is a terminal.

    Owns a thread that draws. Whoever prints lines meanwhile does it inside `aside`.
    """

    def __init__(self, what: str) -> None:
        self._what = what
        self._fraction: float | None = None
        self._lock = threading.Lock()
        self._over = threading.Event()
        self._thread: threading.Thread | None = None
        self._painter: Painter | None = None

    def __enter__(self) -> Waiting:
        if sys.stderr.isatty() and os.environ.get("TERM") != "dumb":
            self._thread = threading.Thread(target=self._draw, daemon=True)
            self._thread.start()
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self._over.set()
        if self._thread is not None:
            self._thread.join()

    def reached(self, fraction: float) -> None:
        """How much is done, from 0 to 1; from now on there is a bar."""
        self._fraction = min(1.0, max(0.0, fraction))

    @contextmanager
    def aside(self) -> Iterator[None]:
        """The line is away inside this block."""
        with self._lock:
            if self._painter is not None:
                self._painter.clear()
            yield

    def _draw(self) -> None:
        started = time.monotonic()
        if self._over.wait(PATIENCE):
            return
        painter = self._painter = _painter(self._what, sys.stderr)
        try:
            while True:
                with self._lock:
                    painter.draw(time.monotonic() - started, self._fraction)
                if self._over.wait(TICK):
                    return
        finally:
            with self._lock:
                painter.close()


class PlainPainter:
    """With nothing but the standard library."""

    def __init__(self, what: str, stream: TextIO) -> None:
        self._what = what
        self._stream = stream
        self._shown = 0

    def draw(self, seconds: float, fraction: float | None) -> None:
        text = f"waiting for {self._what}... {seconds:.0f} s"
        if fraction is not None:
            done = round(fraction * CELLS)
            text = f"{self._what} [{'#' * done}{'.' * (CELLS - done)}] {fraction:4.0%} {seconds:.0f} s"
        width = os.get_terminal_size(self._stream.fileno()).columns or NARROWEST  # 0 where nobody knows
        text = text[: width - 1]
        self._write("\r" + text.ljust(self._shown))
        self._shown = len(text)

    def clear(self) -> None:
        if self._shown:
            self._write("\r" + " " * self._shown + "\r")
        self._shown = 0

    def close(self) -> None:
        self.clear()

    def _write(self, text: str) -> None:
        self._stream.write(text)
        self._stream.flush()


class TqdmPainter:
    """With tqdm, which fits the width of the terminal and tells how long it will take."""

    def __init__(self, tqdm: Any, what: str, stream: TextIO) -> None:
        self._tqdm = tqdm
        self._what = what
        self._stream = stream
        self._bar: Any = None
        self._measured = False

    def draw(self, seconds: float, fraction: float | None) -> None:
        if self._bar is None or self._measured != (fraction is not None):
            self.close()
            self._measured = fraction is not None
            form = MEASURED if self._measured else "waiting for {desc}... {elapsed}"
            options = {"total": 100, "desc": self._what, "leave": False, "bar_format": form}
            self._bar = self._tqdm(file=self._stream, delay=1e-6, **options)  # not drawn before we say so
            self._bar.start_t -= seconds
        self._bar.n = round(100 * (fraction or 0.0))
        self._bar.refresh()

    def clear(self) -> None:
        if self._bar is not None:
            self._bar.clear()

    def close(self) -> None:
        if self._bar is not None:
            self._bar.close()
            self._bar = None


def _painter(what: str, stream: TextIO) -> Painter:
    # By name, as it is an optional extra: what ships has to import, and to type-check, without it.
    try:
        return TqdmPainter(importlib.import_module("tqdm").tqdm, what, stream)
    except ImportError:
        return PlainPainter(what, stream)
