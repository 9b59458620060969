"""Judges what is said of a command beside its layouts, and puts it into words."""

from __future__ import annotations

from collections.abc import Iterator

from . import names
from .model import EFFECTS, Blob, Command, Field, List, Scalar, Variant


def fact_findings(command: Command) -> Iterator[str]:
    facts = command.facts
    if facts.effect not in EFFECTS:
        yield f'effect is "read" or "change", not "{facts.effect}"'
    elif facts.effect == "read" and not facts.harmless:
        yield 'a read says why it is believed to be one: harmless = "..."'
    elif facts.effect == "change" and facts.harmless:
        yield 'harmless is said of a read: effect = "read"'
    yield from notification_findings(command)


def notification_findings(command: Command) -> Iterator[str]:
    facts = command.facts
    if command.message("notification") is None:
        for key in ("subscribes", "address", "unasked", "progress"):
            if getattr(facts, key):
                yield f"{key} is said of notifications, and it has none"
        return
    if facts.subscribes and facts.unasked:
        yield "its notifications are subscribed to, or they come unasked; say one of the two"
    elif not facts.subscribes and not facts.unasked:
        yield 'say what asks for its notifications, subscribes = "Key", or when they come without: unasked = "..."'
    asked = fields_of(command, "request")
    if facts.subscribes and not is_number(asked.get(facts.subscribes)):
        yield f'subscribes: its request has no number "{facts.subscribes}"'
    if facts.progress and not is_number(fields_of(command, "notification").get(facts.progress)):
        yield f'progress: its notification has no number "{facts.progress}"'
    counts = {field.count for field in asked.values() if isinstance(field, List | Blob)}
    for key in facts.address:
        if key not in asked:
            yield f'address: its request has no field "{key}"'
        elif key in counts or key == facts.subscribes or facts.address.count(key) > 1:
            yield f'address: "{key}" names no object; a count and the subscribing field do not, and each key stands once'


def fields_of(command: Command, role: str) -> dict[str, Field]:
    """The fields of a message that have a key, by it; those in lists and variants are not among them."""
    message = command.message(role)
    fields = message.record.fields if message else ()
    return {field.key: field for field in fields if not isinstance(field, Variant)}


def is_number(field: Field | None) -> bool:
    return isinstance(field, Scalar) and field.is_integer


def echoed(command: Command) -> set[str]:
    """The fields of the request that the response repeats unchanged, if it has them. A read repeats what was asked;
    a change may repeat what has become of a value, and unchanged only what names an object."""
    facts = command.facts
    asked = set(fields_of(command, "request")) - {facts.subscribes}
    if facts.effect == "read":
        return asked
    return {key for key in asked if key in facts.address or key.endswith(("ID", "Number"))}


def in_words(command: Command) -> Iterator[str]:
    """What a reader of the stub wants to know, one sentence each."""
    facts = command.facts
    yield f"Effect: {facts.effect}{f' ({facts.harmless})' if facts.harmless else ''}."
    about = ", ".join(names.attribute(key) for key in facts.address)
    if facts.subscribes:
        yield f"{names.attribute(facts.subscribes)} subscribes{f' to {about}' if about else ''}; 0 presumably ends that."
    if facts.unasked:
        yield f"Notifications come unasked: {facts.unasked}."
    if facts.progress:
        yield f"{names.attribute(facts.progress)} of its notifications says how far the task is."
