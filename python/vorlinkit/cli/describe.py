"""``vorlinkit describe COMMAND``: what a command does, takes and answers."""

from __future__ import annotations

from argparse import Namespace
from collections.abc import Iterator, Sequence
from typing import Any

from vorlinkit.catalogue import (
    BlobField,
    CodedValue,
    Command,
    Field,
    ListField,
    Message,
    MessageKind,
    ScalarField,
    load,
)
from vorlinkit.client.layouts import layouts

from .exits import OK
from .lookup import commands_called
from .output import Output


def run(arguments: Namespace, output: Output) -> int:
    for at, command in enumerate(commands_called(load(), arguments.command)):
        if output.as_json:
            output.record(_record(command))
            continue
        if at:
            output.line()
        _show(command, output)
    return OK


def _record(command: Command) -> dict[str, Any]:
    facts = ("id", "name", "snake", "family", "title", "about", "effect", "harmless", "subscribes", "unasked")
    return {
        **{fact: getattr(command, fact) for fact in facts},
        "address": list(command.address),
        "progress": command.progress,
        "messages": {kind: _message_record(kind, message) for kind, message in command.messages.items()},
        "errors": _code_records(command.errors or ()),
        "coded": {key: _code_records(rows) for key, rows in command.coded.items()},
    }


def _message_record(kind: MessageKind, message: Message) -> dict[str, Any]:
    rows = [dict(zip(("field", "kind", "note"), row, strict=True)) for row in _fields(kind, message)]
    head = {"type": message.type, "standing": message.standing, "why": message.why}
    return {**head, "confirmed_by": message.confirmed_by, "fields": rows}


def _code_records(rows: Sequence[CodedValue]) -> list[dict[str, Any]]:
    return [{"code": row.code, "text": row.text} for row in rows]


def _show(command: Command, output: Output) -> None:
    paint = output.paint
    output.line(f"{paint(command.name, 'head')}, command {command.id}: {command.title}")
    if command.about:
        output.line(command.about)
    output.line(
        f"effect: {paint(command.effect, command.effect)}"
        + (f", {command.harmless}" if command.harmless else "")
    )
    for line in _notifies(command):
        output.line(line)
    for kind, message in command.messages.items():
        why = message.confirmed_by or message.why
        output.line()
        output.line(
            f"{kind} {paint(message.type, 'head')}, {paint(message.standing, message.standing)}{f': {why}' if why else ''}"
        )
        rows = [(_indented(path), *rest) for path, *rest in _fields(kind, message)]
        if rows:
            output.table(("field", "kind", "note"), rows, "  ")
    tables = {"command_error": command.errors or (), **command.coded}
    for name, codes in tables.items():
        if codes:
            output.line()
            output.table((name, "meaning"), [(row.code, row.text) for row in codes])
    output.line()
    output.line(" ".join(["vorlinkit", "ask", "HOST", command.name, *_words(command)]))


def _fields(kind: MessageKind, message: Message) -> list[tuple[str, str, str]]:
    return list(_rows(message.type, message.fields, kind == "request"))


def _indented(path: str) -> str:
    *outer, name = path.split(".")
    return "  " * len(outer) + name


def _notifies(command: Command) -> Iterator[str]:
    if command.notification is None:
        return
    if command.subscribes:
        about = f", about its {', '.join(command.address)}" if command.address else ""
        yield f"notifies: those who ask for it with {command.subscribes}{about} (vorlinkit watch)"
    else:
        yield f"notifies: {command.unasked or 'unasked'}"
    if command.progress:
        yield f"{command.progress} of its notifications tells how far it is"


def _words(command: Command) -> Iterator[str]:
    for field in layouts()[command.request.type].given if command.request else ():
        if getattr(field, "key", "") != command.subscribes:
            yield f"{field.attribute}=..."


def _rows(
    type_name: str, fields: Sequence[Field], sent: bool, ahead: str = ""
) -> Iterator[tuple[str, str, str]]:
    """Path, kind and note of every field, what is inside a list or an alternative behind it. Of what is `sent` without
    the counts and choices that follow from the rest."""
    layout = layouts()[type_name]
    for field in layout.given if sent else fields:
        path = ahead + field.attribute
        if isinstance(field, ScalarField):
            yield path, field.kind, field.note
        elif isinstance(field, BlobField):
            yield path, "bytes", f"{field.count} of them"
        elif isinstance(field, ListField):
            yield path, "list", f"{field.count} of them"
            yield from _rows(field.type, field.items, sent, path + ".")
        else:
            yield path, "variant", f"one of these, as {field.on} says"
            for one in field.alternatives:
                yield f"{path}.{one.name}", "", f"{field.on} {' or '.join(map(str, one.when))}"
                yield from _rows(one.type, one.fields, sent, f"{path}.{one.name}.")
