"""Every record class that the module should have, as the generated catalogue tells it."""

from __future__ import annotations

import json
from collections.abc import Iterator
from importlib import resources
from typing import Any

import vorlinkit_python as vorlin

BITS = {"u8": 8, "u16": 16, "u32": 32, "u64": 64}
COMMANDS: list[dict[str, Any]] = json.loads(
    (resources.files("vorlinkit") / "catalogue.json").read_text("utf-8")
)["commands"]


def records_below(name: str, fields: list[dict[str, Any]]) -> Iterator[tuple[str, list[dict[str, Any]]]]:
    """Name and fields of a record and of those inside it, which come first."""
    for field in fields:
        if field["kind"] == "list":
            yield from records_below(field["type"], field["items"])
        elif field["kind"] == "blob":
            byte = {"key": field["item"], "attribute": field["item_attribute"], "kind": "u8", "note": ""}
            yield field["type"], [byte]
        elif field["kind"] == "variant":
            for alternative in field["alternatives"]:
                yield from records_below(alternative["type"], alternative["fields"])
    yield name, fields


RECORDS = {
    name: fields
    for command in COMMANDS
    for message in command["messages"].values()
    for name, fields in records_below(message["type"], message["fields"])
}


def attributes(fields: list[dict[str, Any]]) -> Iterator[str]:
    for field in fields:
        yield field["attribute"]
        if field["kind"] == "blob":
            yield field["attribute"] + "_bytes"


def attribute_of(key: str) -> str:
    """The attribute of a key, as some record has it."""
    return next(f["attribute"] for fields in RECORDS.values() for f in fields if f.get("key") == key)


def class_of(name: str) -> type:
    found = getattr(vorlin, name)
    assert isinstance(found, type)
    return found
