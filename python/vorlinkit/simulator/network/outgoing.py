"""What leaves a connection next, and in which writes."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass
from itertools import chain, islice
from typing import Final

from ..answer import Ending

BLOCK: Final = 64 * 1024


@dataclass(frozen=True)
class Outgoing:
    """What leaves next: whole frames or pieces of them, and how the connection ends behind them, if so.

    ``burst`` comes behind the parts; its frames are made when the client takes them.
    """

    parts: Sequence[bytes]
    frames: int = 0
    burst: Iterable[bytes] = ()
    chunk: int | None = None
    together: bool = False
    ending: Ending | None = None
    answered: int | None = None

    @property
    def size(self) -> int:
        """The bytes that are held in memory."""
        return sum(len(part) for part in self.parts)


def blocks(outgoing: Outgoing, frames_left: int | None) -> Iterator[bytes]:
    """The writes that send it: one per frame, or one for all, or many small frames to a block, or pieces."""
    parts = islice(chain(outgoing.parts, outgoing.burst), frames_left)
    if outgoing.chunk is not None:
        yield from _pieces(parts, outgoing.chunk)
        return
    if outgoing.together:
        yield b"".join(islice(parts, len(outgoing.parts)))
    yield from parts if outgoing.frames < 100 else _filled(parts)


def _pieces(parts: Iterable[bytes], size: int) -> Iterator[bytes]:
    rest = bytearray()
    for part in parts:
        rest += part
        while len(rest) >= size:
            yield bytes(rest[:size])
            del rest[:size]
    if rest:
        yield bytes(rest)


def _filled(parts: Iterable[bytes]) -> Iterator[bytes]:
    block = bytearray()
    for part in parts:
        block += part
        if len(block) >= BLOCK:
            yield bytes(block)
            block.clear()
    yield bytes(block)
