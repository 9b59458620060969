"""Cuts what is received from a machine into frames. Bytes only: knows no sockets and no requests."""

from __future__ import annotations

import struct
from typing import Final, NamedTuple

from . import frames

_START: Final = struct.Struct(">2sBB")
_NAMES: Final = {
    frames.REQUEST: "Request",
    frames.RESPONSE: "Response",
    frames.NOTIFICATION: "Notification",
}


class Frame(NamedTuple):
    """One frame whose header is in order. `major` and `minor` are 0 but in responses."""

    message_type: int
    command_id: int
    payload: bytes
    major: int = 0
    minor: int = 0


class BadFrame(NamedTuple):
    """A frame whose header is wrong, though its end was found: it is left out."""

    text: str


class StreamFault(NamedTuple):
    """No frame can be found any more: everything that was buffered is thrown away."""

    text: str
    log_text: str


Found = Frame | BadFrame | StreamFault


class FrameAssembler:
    """Reassembles frames from chunks of any size, in time linear in what is received.

    Memory grows with the bytes that have arrived, never with a length that was only announced. For one thread at a
    time.
    """

    def __init__(self) -> None:
        self._begun = bytearray()  # a frame whose end has not arrived
        self._wanted = 0  # the least length that it can have, as far as is known

    def __bool__(self) -> bool:
        """Whether the beginning of a frame is waiting for its end."""
        return bool(self._begun)

    def reset(self) -> None:
        """Forgets half a frame."""
        self._begun = bytearray()

    def cut(self, chunk: bytes) -> list[Found]:
        """What the chunk completes, in order."""
        data: bytes | bytearray = chunk
        if self._begun:
            self._begun += chunk
            if len(self._begun) < self._wanted:
                return []
            data, self._begun = self._begun, bytearray()
        found: list[Found] = []
        with memoryview(data) as view:
            at = 0
            while len(view) - at >= _START.size:
                protocol, _, message_type = _START.unpack_from(view, at)
                header = frames.HEADERS.get(message_type)
                if protocol != frames.PROTOCOL:
                    fault = "Invalid protocol ID (expected 'VR')"
                    return [*found, StreamFault(fault, "Invalid protocol ID in RX stream")]
                if header is None:
                    return [*found, StreamFault("Unknown message type", "Unknown message type")]
                self._wanted = header.size
                if len(view) - at < header.size:
                    break
                fields = header.unpack_from(view, at)
                begin, end = at + header.size, at + header.size + fields[-1]
                self._wanted = end - at
                if end > len(view):
                    break
                found.append(_frame(fields, header.size, view[begin:end]))
                at = end
            else:
                self._wanted = _START.size
            if at < len(view):
                self._begun += view[at:]
        return found


def _frame(fields: tuple[int, ...], size: int, payload: memoryview) -> Found:
    message_type = fields[2]
    if fields[1] != frames.VERSION:
        return BadFrame("Unsupported protocol version")
    if fields[3] != size - frames.START_SIZE:
        return BadFrame(f"Invalid {_NAMES[message_type]} header length")
    if message_type == frames.RESPONSE:
        return Frame(message_type, fields[4], bytes(payload), fields[5], fields[6])
    return Frame(message_type, fields[4], bytes(payload))
