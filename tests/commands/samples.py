"""Makes valid payloads of every response and notification of a catalogue, with the JSON text that each
must be rendered as. The coder and the renderer here are written apart from those they are held against.

  python3 samples.py CATALOGUE_FOLDER OUT_FOLDER [OVERLAY...]     (with the generator on PYTHONPATH)

Writes samples.txt, one line per payload (type, hexadecimal bytes, JSON text, separated by tabs), and for
the C++ test headers.inc, decoders.inc, a table of all decoders, and descriptions.inc, what each command's description
must say.
"""

import random
import sys
from pathlib import Path
from uuid import UUID

from generator.__main__ import read_catalogue, write
from generator.model import INTEGER_BITS, Blob, Command, List, Message, Record, Scalar, Variant

TEXTS = ["", "AD1", 'say "hi"', "Überlänge \\ größer", "x" * 40, "tail; "]


class Sample:
    """One payload in the making. `choice` picks the alternative of every variant; 0 is the plainest
    sample of all (zeros, no items), 1 the one with the largest numbers."""

    def __init__(self, command: Command, choice: int) -> None:
        self.command, self.choice = command, choice
        self.random = random.Random(f"{command.name} {choice}")
        self.bytes = bytearray()
        self.leading: int | None = None  # the discriminator that the alternative at hand begins with

    def number(self, kind: str) -> int:
        limit = 1 << INTEGER_BITS[kind]
        some = self.random.choice([self.random.randrange(limit), 1, 9, 10, 99, 100])
        return {0: 0, 1: limit - 1}.get(self.choice, some)

    def record(self, record: Record, outer: list[dict[str, int]]) -> list[str]:
        """Appends the record's bytes; returns its JSON entries."""
        values: dict[str, int] = {}
        entries: list[str] = []
        counts = {each.count for each in record.fields if isinstance(each, List | Blob)}
        for field in record.fields:
            match field:
                case Scalar():
                    entries += self.scalar(record, field, values, field.key in counts)
                case List() | Blob():
                    items = (self.record(field.item, [values, *outer]) for _ in range(values[field.count]))
                    texts = ["{" + ", ".join(item) + "}" for item in items]
                    entries.append(f'"{field.key}": [{", ".join(texts)}]')
                case Variant():
                    alternative = field.alternatives[self.choice % len(field.alternatives)]
                    if field.levels is not None:
                        value = [values, *outer][field.levels][field.on]
                        alternative = next(each for each in field.alternatives if value in each.when)
                    self.leading = self.random.choice(alternative.when) if field.inside else None
                    entries += self.record(alternative.record, [values, *outer])
        return entries

    def scalar(self, record: Record, field: Scalar, values: dict[str, int], is_count: bool) -> list[str]:
        if field.kind == "string":
            text = "" if self.choice == 0 else self.random.choice(TEXTS)
            self.bytes += text.encode() + b"\0"
            return [f'"{field.key}": "{text}"']
        if field.kind == "uuid":
            raw = self.random.randbytes(16)
            self.bytes += raw
            return [f'"{field.key}": "{str(UUID(bytes=raw)).upper()}"']
        steering = list(discriminated(record, field.key))
        value = self.number(field.kind)
        if self.leading is not None:
            value, self.leading = self.leading, None
        elif is_count:
            value = 0 if self.choice == 0 else self.random.choice([1, 2, 3])
        elif steering:
            value = steering[self.choice % len(steering)]
        values[field.key] = value
        self.bytes += value.to_bytes(INTEGER_BITS[field.kind] // 8, "big")
        entries = [f'"{field.key}": {value}']
        if table := self.command.table(field.key):
            entries.append(f'"{field.key}_Desc": "{describe(table.kind, table.rows, value)}"')
        return entries


def discriminated(record: Record, key: str, depth: int = 0):
    """The values for which the field `key` of a record, `depth` records outward, selects something."""
    for field in record.fields:
        match field:
            case List() | Blob():
                yield from discriminated(field.item, key, depth + 1)
            case Variant():
                for alternative in field.alternatives:
                    if field.on == key and field.levels == depth:
                        yield from alternative.when
                    yield from discriminated(alternative.record, key, depth + 1)


def describe(kind, rows, value: int) -> str:
    if kind == "Enum":
        return next((row.text for row in rows if row.code == value), f"Unknown value (0x{value:04X})")
    known = 0
    for row in rows:
        known |= row.code
    parts = [row.text + "; " for row in rows if row.code & value]
    if value & ~known:
        parts.append(f"Unknown (0x{value & ~known:04X}); ")
    return "".join(parts) if value else "Success"


def samples(command: Command, message: Message):
    fields = [field for record in message.record.tree() for field in record.fields]
    most = [len(field.alternatives) for field in fields if isinstance(field, Variant)]
    for choice in range(max([3, *most]) + 1):
        sample = Sample(command, choice)
        entries = sample.record(message.record, [])
        yield bytes(sample.bytes), "{" + ", ".join(entries) + "}"


def described(command: Command) -> str:
    messages = {message.role: message.record.type for message in command.messages}
    types = (messages.get(role, "void") for role in ("request", "response", "notification"))
    subscribing = str(bool(command.facts.subscribes)).lower()
    return (
        f'static_assert(describes<{command.name}, {", ".join(types)}>({command.id}, "{command.name}", '
        f"{subscribing}));\n"
    )


def main() -> None:
    folder, out, *overlays = map(Path, sys.argv[1:])
    catalogue, findings = read_catalogue(folder, overlays, partial=True)
    if findings:
        sys.exit("\n".join(map(str, findings)))
    lines, decoders = [], []
    for command in catalogue.commands():
        for message in command.messages:
            if message.role == "request":
                continue
            name = message.record.type
            lines += [f"{name}\t{payload.hex()}\t{text}\n" for payload, text in samples(command, message)]
            stem = f"{command.snake}_{message.role}"
            decoders.append(f'{{"{name}", &run<decode_{stem}, {stem}_to_json>}},\n')
    write(out / "samples.txt", "".join(lines))
    headers = [f"#include <vorlinkit/commands/{family.name}.hpp>\n" for family in catalogue.families]
    write(out / "headers.inc", "".join(headers))
    write(out / "decoders.inc", "".join(decoders))
    write(out / "descriptions.inc", "".join(map(described, catalogue.commands())))


if __name__ == "__main__":
    main()
