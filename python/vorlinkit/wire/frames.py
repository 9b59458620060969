"""The three frame headers: reading what a client sends, building what a machine sends."""

from __future__ import annotations

import struct
from dataclasses import dataclass
from enum import IntFlag
from typing import Final

PROTOCOL: Final = b"VR"
VERSION: Final = 1
REQUEST: Final = 1
RESPONSE: Final = 2
NOTIFICATION: Final = 3
ACCESS_KEY: Final = bytes((0x5A, 0xC3, 0x1E, 0x87))

REQUEST_HEADER: Final = struct.Struct(">2sBBHHBB4sI")
RESPONSE_HEADER: Final = struct.Struct(">2sBBHHIII")
NOTIFICATION_HEADER: Final = struct.Struct(">2sBBHHI")
START_SIZE: Final = 4

HEADERS: Final = {REQUEST: REQUEST_HEADER, RESPONSE: RESPONSE_HEADER, NOTIFICATION: NOTIFICATION_HEADER}
"""By message type."""


class MajorError(IntFlag):
    """Why the machine refuses a request at the protocol level."""

    HeaderLengthIncorrect = 0x0001
    UnsupportedHeaderType = 0x0002
    UnexpectedHeaderType = 0x0004
    UnsupportedCommandId = 0x0008
    DataLengthMismatch = 0x0010
    ExclusiveControlRequired = 0x0020
    ControlBlocked = 0x0040
    AccessKeyIncorrect = 0x0080
    ClientIdRequired = 0x0100
    IncorrectClientId = 0x0200


class MinorError(IntFlag):
    """What the machine warns of while it accepts a request; only the first bit differs from MajorError."""

    UnknownRequestVersion = 0x0001
    UnsupportedHeaderType = 0x0002
    UnexpectedHeaderType = 0x0004
    UnsupportedCommandId = 0x0008
    DataLengthMismatch = 0x0010
    ExclusiveControlRequired = 0x0020
    ControlBlocked = 0x0040
    AccessKeyIncorrect = 0x0080
    ClientIdRequired = 0x0100
    IncorrectClientId = 0x0200


def flags_text(flags: int, names: type[MajorError] | type[MinorError]) -> str:
    """The flags by name and value, as refusals and warnings tell them; those without a name are left out."""
    known = [f"{flag.name} (0x{flag.value:08X})" for flag in names if flags & flag]
    return " | ".join(known) or "Unknown error"


@dataclass(frozen=True)
class RequestFrame:
    """One frame from a client, header fields as they came."""

    version: int
    message_type: int
    header_length: int
    command_id: int
    client_id: int
    access_key: bytes
    payload: bytes


def header_size(message_type: int) -> int | None:
    """The size of the whole header of this kind of frame; None for a kind that does not exist."""
    header = HEADERS.get(message_type)
    return header.size if header is not None else None


def announced_length(header: bytes) -> int:
    """The payload length that a complete header announces (always its last four bytes)."""
    return int.from_bytes(header[-4:], "big")


def parse(header: bytes, payload: bytes) -> RequestFrame:
    """One frame from a client; fields that a response or notification header lacks are 0."""
    message_type = header[3]
    header_length, command_id = struct.unpack_from(">HH", header, 4)
    is_request = message_type == REQUEST
    return RequestFrame(
        version=header[2],
        message_type=message_type,
        header_length=header_length,
        command_id=command_id,
        client_id=header[8] if is_request else 0,
        access_key=header[10:14] if is_request else b"",
        payload=payload,
    )


def request(
    command_id: int, payload: bytes = b"", client_id: int = 0, access_key: bytes = ACCESS_KEY
) -> bytes:
    """A whole request frame, as a client sends it."""
    length = REQUEST_HEADER.size - START_SIZE
    return (
        REQUEST_HEADER.pack(
            PROTOCOL, VERSION, REQUEST, length, command_id, client_id, 0, access_key, len(payload)
        )
        + payload
    )


def response(
    command_id: int,
    payload: bytes = b"",
    major_error: int = 0,
    minor_error: int = 0,
    announced: int | None = None,
) -> bytes:
    """A whole response frame; ``announced`` overrides the length in the header."""
    length = RESPONSE_HEADER.size - START_SIZE
    size = len(payload) if announced is None else announced
    return (
        RESPONSE_HEADER.pack(PROTOCOL, VERSION, RESPONSE, length, command_id, major_error, minor_error, size)
        + payload
    )


def notification(command_id: int, payload: bytes = b"") -> bytes:
    """A whole notification frame."""
    length = NOTIFICATION_HEADER.size - START_SIZE
    return (
        NOTIFICATION_HEADER.pack(PROTOCOL, VERSION, NOTIFICATION, length, command_id, len(payload)) + payload
    )
