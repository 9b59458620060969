"""The documentation page that says of every message how sure its layout is."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator

from .model import ROLES, Catalogue, Command, Family, Standing
from .page import section

COLUMNS = "request, response, notification, error rows"

HEAD = """\
# How sure each layout is

This page is generated from the command catalogue; change the catalogue, then run
`python3 -m generator --status docs/layout-status.md`.

| standing | meaning |
|---|---|
| confirmed | the protocol's own description fixes the fields, their order and their widths |
| assumed | laid out by the project after the customs of the protocol, not checked against a machine: check it before you rely on it |
| site-confirmed | corrected or checked at a machine by those who have it, through an overlay that says by whom |
| open | error rows only: nobody knows them, so a set bit is shown as a number instead of a text that may be wrong |

A dash stands for a message that the command does not have. [correcting-a-layout.md](correcting-a-layout.md) shows how
to put an assumed layout right. A built module says the same of itself, overlays included:

```python
from vorlinkit.catalogue import layout_status

status = layout_status()["GetMotorPositionResponse"]
print(status.standing, status.why, status.confirmed_by)
```

"""


def emit(catalogue: Catalogue) -> str:
    parts = [HEAD, totals(catalogue)]
    parts += [section(each, COLUMNS, cells, notes(each)) for each in catalogue.families if each.commands]
    return "\n".join(parts)


def totals(catalogue: Catalogue) -> str:
    counts = Counter(
        message.standing.name for command in catalogue.commands() for message in command.messages
    )
    shown = ", ".join(f"{counts[name]} {name}" for name in ("confirmed", "assumed", "site-confirmed"))
    return f"Of {counts.total()} messages of {len(list(catalogue.commands()))} commands: {shown}.\n"


def cells(command: Command) -> list[str]:
    messages = [command.message(role) for role in ROLES]
    errors = command.errors.standing.name if command.errors else ""
    return [*(message.standing.name if message else "" for message in messages), errors]


def notes(family: Family) -> Iterator[str]:
    for command in family.commands:
        yield from reasons(command)


def reasons(command: Command) -> Iterator[str]:
    """Why it was assumed so, or who confirmed it; messages with the same reason share a line."""
    judged = [(message.role, message.standing) for message in command.messages]
    if command.errors:
        judged.append(("error rows", command.errors.standing))
    texts: dict[str, list[str]] = {}
    for what, standing in judged:
        if text := reason(standing):
            texts.setdefault(text, []).append(what)
    for text, whats in texts.items():
        yield f"{command.name}, {' and '.join(whats)}: {text}"


def reason(standing: Standing) -> str:
    return f"confirmed by {standing.confirmed_by}" if standing.confirmed_by else standing.why
