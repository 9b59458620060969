"""``vorlinkit decode TYPE HEX``: a payload read by its layout."""

from __future__ import annotations

import sys
from argparse import Namespace
from collections.abc import Iterator, Sequence

from vorlinkit.catalogue import Command, Message, load
from vorlinkit.client.errors import DecodeError
from vorlinkit.wire.coder import PayloadError, decode

from .exits import OK
from .lookup import type_called
from .output import Output
from .shown import plain, show
from .values import hex_bytes


def run(arguments: Namespace, output: Output) -> int:
    command, kind = type_called(load(), arguments.type)
    for payload in _payloads(arguments.hex):
        _decode(command, command.messages[kind], payload, output)
    return OK


def _payloads(words: Sequence[str]) -> Iterator[bytes]:
    if words and words != ["-"]:
        yield hex_bytes(" ".join(words), "HEX")
        return
    for number, line in enumerate(sys.stdin, 1):
        if line.strip():
            yield hex_bytes(line, f"line {number}")


def _decode(command: Command, message: Message, payload: bytes, output: Output) -> None:
    try:
        record, left = decode(message.fields, payload)
    except PayloadError as error:
        raise DecodeError(
            f"{message.type} ({message.standing}) cannot be read at {error.path or 'its start'}, "
            f"byte {error.offset} of {len(payload)}: {error}",
            command=command.name,
            field=error.path,
            offset=error.offset,
            payload=payload,
            standing=message.standing,
        ) from None
    values, rest = plain(command, message.fields, record), payload[len(payload) - left :]
    if output.as_json:
        head = {"type": message.type, "standing": message.standing}
        output.record({**head, "values": values, "left_over": rest.hex()})
        return
    output.line(f"{output.paint(message.type, 'head')}, layout {output.paint(message.standing, message.standing)}")
    show(output, values, "  ")
    if rest:
        output.line(output.paint(f"left over: {rest.hex(' ')}", "failed"))
