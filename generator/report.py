"""What a catalogue comes to: messages by family and by how far their layouts can be trusted."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable

from .model import ROLES, Catalogue, Command

COLUMNS = ("commands", *(role + "s" for role in ROLES), "confirmed", "assumed", "site-confirmed")


def report(catalogue: Catalogue) -> str:
    rows = [(family.name, tally(family.commands)) for family in catalogue.families if family.commands]
    rows.append(("total", tally(catalogue.commands())))
    width = max(len(name) for name, _ in rows + [("family", {})])
    lines = ["  ".join(["family".ljust(width), *COLUMNS])]
    for name, counts in rows:
        cells = [str(counts[column]).rjust(len(column)) for column in COLUMNS]
        lines.append("  ".join([name.ljust(width), *cells]))
    tables = [command.errors for command in catalogue.commands() if command.errors]
    standings = Counter(table.standing.name for table in tables)
    shown = ", ".join(f"{count} {name}" for name, count in sorted(standings.items()))
    lines.append(f"command error tables: {len(tables)} ({shown or 'none'})")
    return "\n".join(lines) + "\n"


def tally(commands: Iterable[Command]) -> Counter[str]:
    counts: Counter[str] = Counter()
    for command in commands:
        counts["commands"] += 1
        for message in command.messages:
            counts[message.role + "s"] += 1
            counts[message.standing.name] += 1
    return counts
