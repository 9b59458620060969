"""What is printed on standard output: tables for people, one JSON object a line for programs."""

from __future__ import annotations

import binascii
import io
import json
import os
import sys
from collections.abc import Mapping, Sequence
from typing import Any, Final, TextIO

_COLOURS: Final[Mapping[str, str]] = {
    "head": "1",
    "ok": "32",
    "confirmed": "32",
    "site-confirmed": "32",
    "change": "33",
    "assumed": "33",
    "note": "36",
    "failed": "31",
}

Row = Sequence[object]


class Output:
    """Where a command prints what it was asked for. `as_json`: one JSON object a line; otherwise text, with colours if
    `colour`. On a terminal the last column of a table is cut so that a row stays a line."""

    def __init__(self, stream: TextIO, *, as_json: bool, colour: bool) -> None:
        self._stream = stream
        self.as_json = as_json
        self._colour = colour
        self.terminal = stream.isatty()
        self.width = os.get_terminal_size(stream.fileno()).columns if self.terminal else 0

    def record(self, record: Mapping[str, Any]) -> None:
        """One JSON object on a line of its own, at once. Blobs are base64. Bytes of a text that are no UTF-8 come as lone surrogates
        (``\\udcff``), which Python's ``surrogateescape`` turns back."""
        self._write(json.dumps(record, default=_base64) + "\n")

    def line(self, text: str = "") -> None:
        """One line of text, at once."""
        self._write(text + "\n")

    def table(self, heads: Sequence[str], rows: Sequence[Row], indent: str = "") -> None:
        """Columns as wide as they need; numbers to the right. A cell that is the name of a colour has it."""
        texts = [[printable(cell) for cell in row] for row in rows]
        widths = [max(map(len, column)) for column in zip(heads, *texts, strict=True)]
        right = [bool(rows) and all(isinstance(row[at], int) for row in rows) for at in range(len(heads))]
        lines = [self._row(heads, widths, right, indent, head=True)]
        lines += [self._row(row, widths, right, indent) for row in texts]
        self._write("\n".join(lines) + "\n")

    def paint(self, text: str, colour: str) -> str:
        """The text in the colour of this name."""
        return f"\x1b[{_COLOURS[colour]}m{text}\x1b[0m" if self._colour and colour in _COLOURS else text

    def _row(
        self,
        cells: Sequence[str],
        widths: Sequence[int],
        right: Sequence[bool],
        indent: str,
        head: bool = False,
    ) -> str:
        last = len(cells) - 1
        room = self.width - len(indent) - sum(widths[:last]) - 2 * last if self.width else 0
        shown = []
        for at, cell in enumerate(cells):
            text = cell.rjust(widths[at]) if right[at] else cell if at == last else cell.ljust(widths[at])
            if at == last and len(text) > room >= 10:
                text = text[: room - 1] + "…"
            shown.append(self.paint(text, "head" if head else cell))
        return (indent + "  ".join(shown)).rstrip()

    def _write(self, text: str) -> None:
        self._stream.write(text)
        self._stream.flush()


def _base64(blob: bytes) -> str:
    return binascii.b2a_base64(blob, newline=False).decode("ascii")


def printable(value: object) -> str:
    """A value as one cell or one line: what would move the cursor or ring the bell is shown as an escape."""
    text = value if isinstance(value, str) else str(value)
    if text.isprintable():
        return text
    return "".join(one if one.isprintable() else ascii(one)[1:-1] for one in text)


def open_output(as_json: bool, as_table: bool, colour: bool) -> Output:
    """Standard output as the options and the terminal want it."""
    stream = sys.stdout
    if isinstance(stream, io.TextIOWrapper):
        stream.reconfigure(errors="backslashreplace")  # a terminal that lacks a letter is no reason to stop
    terminal = stream.isatty()
    coloured = colour and terminal and not os.environ.get("NO_COLOR") and os.environ.get("TERM") != "dumb"
    return Output(stream, as_json=as_json or not (terminal or as_table), colour=coloured)


def discard(stream: TextIO) -> None:
    """Let what is still to be written to a closed pipe go nowhere."""
    try:
        descriptor = stream.fileno()
    except (OSError, ValueError):
        return
    nowhere = os.open(os.devnull, os.O_WRONLY)
    os.dup2(nowhere, descriptor)
    os.close(nowhere)
