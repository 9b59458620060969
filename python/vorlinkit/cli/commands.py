"""``vorlinkit commands [WORD]``: the machine's commands."""

from __future__ import annotations

from argparse import Namespace

from vorlinkit.catalogue import Command, load
from vorlinkit.client.layouts import layouts

from .exits import OK, UsageError
from .hints import folded, hint
from .output import Output


def run(arguments: Namespace, output: Output) -> int:
    listed = load().commands
    word = arguments.word or ""
    found = [command for command in listed if _has(command, word)]
    if not found:
        raise UsageError(f"No command has {word!r} in it.{hint(word, (one.name for one in listed))}")
    if output.as_json:
        for command in found:
            output.record(_record(command))
    else:
        rows = [
            (one.id, one.name, one.effect, "yes" if one.notification else "", _takes(one)) for one in found
        ]
        output.table(("id", "command", "effect", "notifies", "takes"), rows)
    return OK


def _has(command: Command, word: str) -> bool:
    places = (command.name, command.family, command.title)
    return word.lower() in command.snake or any(folded(word) in folded(place) for place in places)


def _record(command: Command) -> dict[str, object]:
    return {
        "id": command.id,
        "name": command.name,
        "family": command.family,
        "title": command.title,
        "effect": command.effect,
        "notifies": command.notification is not None,
        "takes": _takes(command),
    }


def _takes(command: Command) -> str:
    given = layouts()[command.request.type].given if command.request else ()
    return ", ".join(field.attribute for field in given)
