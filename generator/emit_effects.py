"""The documentation page that says of every command what it does to the machine, and what it notifies of."""

from __future__ import annotations

from collections import Counter

from .model import EFFECTS, Catalogue, Command
from .page import section

COLUMNS = "effect, subscribed by, address, unasked, progress"

HEAD = """\
# What each command does

This page is generated from the command catalogue; change the catalogue, then run
`python3 -m generator --effects docs/command-effects.md`.

| column | meaning |
|---|---|
| effect | *read*: the machine's sorting, its settings and its stored data stay as they are; the reason for believing so stands behind it. *change*: everything else, and whatever is in doubt |
| subscribed by | the field of the request that asks for notifications; 0 presumably ends them |
| address | the fields of the request that name what the notifications are about; none where there is only one such thing |
| unasked | when notifications come that no field of a request has asked for |
| progress | the field of the notifications that says how far the task is that the request started |

A subscription belongs to the connection and ends with it, so a request that reads and subscribes is a read. What is
said here was judged from the commands' names, fields and texts. No machine was asked: whoever lets a program send
reads freely makes sure of them on the machine first. A built module says the same of itself, overlays included:

```python
from vorlinkit import catalogue

command = catalogue.load().named("GetMotorPosition")
print(command.effect, command.harmless, command.subscribes, command.address)
```

"""


def emit(catalogue: Catalogue) -> str:
    counts = Counter(command.facts.effect for command in catalogue.commands())
    told = " and ".join(f"{counts[effect]} {effect}" for effect in reversed(EFFECTS))
    parts = [HEAD, f"Of {counts.total()} commands {told}.\n"]
    parts += [section(family, COLUMNS, cells) for family in catalogue.families if family.commands]
    return "\n".join(parts)


def cells(command: Command) -> list[str]:
    facts = command.facts
    effect = f"read ({facts.harmless})" if facts.effect == "read" else facts.effect
    return [effect, facts.subscribes, ", ".join(facts.address), facts.unasked, facts.progress]
