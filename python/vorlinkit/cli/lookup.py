"""Commands and payload types by what a user typed."""

from __future__ import annotations

from vorlinkit.catalogue import Catalogue, Command, MessageKind

from .exits import UsageError
from .hints import folded, hint


def commands_called(catalogue: Catalogue, word: str) -> tuple[Command, ...]:
    """The command of this name, or those with this id (decimal or 0x); raises UsageError with near names."""
    try:
        number = int(word, 0)
    except ValueError:
        found = tuple(one for one in catalogue.commands if folded(one.name) == folded(word))
    else:
        found = catalogue.with_id(number)
    if not found:
        near = hint(word, (one.name for one in catalogue.commands))
        raise UsageError(f"There is no command {word!r}.{near or ' vorlinkit commands lists them.'}")
    return found


def command_called(catalogue: Catalogue, word: str) -> Command:
    """The same, where it has to be one."""
    found = commands_called(catalogue, word)
    if len(found) > 1:
        raise UsageError(f"Command {word} may be {' or '.join(one.name for one in found)}; name one of them.")
    return found[0]


def type_called(catalogue: Catalogue, word: str) -> tuple[Command, MessageKind]:
    """The message whose payload type has this name; raises UsageError with near names."""
    types = {folded(message.type): (command, kind) for command, kind, message in catalogue.layouts()}
    found = types.get(folded(word))
    if found is not None:
        return found
    own = [command for command in catalogue.commands if folded(command.name) == folded(word)]
    if own:
        known = " or ".join(message.type for message in own[0].messages.values())
        raise UsageError(f"{word!r} is a command; its payloads are {known or 'none: they are empty'}.")
    near = hint(word, (message.type for _, _, message in catalogue.layouts()))
    raise UsageError(f"There is no payload type {word!r}.{near}")
