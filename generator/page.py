"""What the generated pages share."""

from __future__ import annotations

from collections.abc import Callable, Iterable

from .model import Command, Family


def section(
    family: Family, columns: str, row: Callable[[Command], Iterable[str]], notes: Iterable[str] = ()
) -> str:
    """A family's heading and its table, a line for each command; the notes follow as a list."""
    heads = ["id", "command", *columns.split(", ")]
    lines = [f"## {family.title}", "", f"| {' | '.join(heads)} |", "|" + "---|" * len(heads)]
    for command in family.commands:
        cells = [str(command.id), command.name, *(cell or "-" for cell in row(command))]
        lines.append(f"| {' | '.join(cells)} |")
    listed = [f"- {note}" for note in notes]
    return "\n".join([*lines, *([""] if listed else []), *listed]) + "\n"
