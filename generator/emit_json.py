"""The model as JSON: what the pure Python side (simulator, typed client, docs) reads at run time."""

from __future__ import annotations

import json
from dataclasses import asdict
from typing import Any

from .model import Blob, Catalogue, Command, Family, Field, List, Message, Record, Scalar, Table, Variant


def emit(catalogue: Catalogue) -> str:
    families = [{"name": f.name, "title": f.title, "about": f.about} for f in catalogue.families]
    commands = [command_json(family, command) for family in catalogue.families for command in family.commands]
    commands.sort(key=lambda each: (each["id"], each["name"]))
    return (
        json.dumps({"families": families, "commands": commands}, ensure_ascii=False, separators=(",", ":"))
        + "\n"
    )


def command_json(family: Family, command: Command) -> dict[str, Any]:
    return {
        "id": command.id,
        "name": command.name,
        "snake": command.snake,
        "family": family.name,
        "title": family.title,
        "about": command.about,
        "messages": {message.role: message_json(message) for message in command.messages},
        "errors": rows_json(command.errors) if command.errors else None,
        "errors_standing": command.errors.standing.name if command.errors else "",
        "errors_why": command.errors.standing.why if command.errors else "",
        "coded": {table.key: rows_json(table) for table in command.coded},
        **asdict(command.facts),
    }


def rows_json(table: Table) -> list[dict[str, Any]]:
    return [{"code": row.code, "text": row.text} for row in table.rows]


def message_json(message: Message) -> dict[str, Any]:
    return {
        "standing": message.standing.name,
        "why": message.standing.why,
        "confirmed_by": message.standing.confirmed_by,
        "type": message.record.type,
        "fields": fields_json(message.record),
    }


def fields_json(record: Record) -> list[dict[str, Any]]:
    return [field_json(field) for field in record.fields]


def field_json(field: Field) -> dict[str, Any]:
    head: dict[str, Any] = {"attribute": field.attribute, "note": field.note}
    match field:
        case Scalar():
            return {"key": field.key, "kind": field.kind} | head
        case List():
            body = {"count": field.count, "type": field.item.type, "items": fields_json(field.item)}
            return {"key": field.key, "kind": "list"} | head | body
        case Blob():
            byte = field.item_field
            body = {"count": field.count, "type": field.item.type}
            return (
                {"key": field.key, "kind": "blob"}
                | head
                | body
                | {"item": byte.key, "item_attribute": byte.attribute}
            )
        case Variant():
            alternatives = [
                {"name": a.name, "type": a.record.type, "when": list(a.when), "fields": fields_json(a.record)}
                for a in field.alternatives
            ]
            return (
                {"kind": "variant"}
                | head
                | {"on": field.on, "inside": field.inside, "alternatives": alternatives}
            )
