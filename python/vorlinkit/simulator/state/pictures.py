"""Frames that a picture can be made of: their size and their pixels are what the same message announces."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Final

from vorlinkit.catalogue import BlobField, Field, ScalarField
from vorlinkit.wire.records import Known, Record

from ..answer import LARGEST_PAYLOAD

BITS_PER_PIXEL: Final = 8


@dataclass(frozen=True)
class PictureSize:
    """What cameras deliver unless a request or a setting says otherwise."""

    pixels: int = 64
    lines: int = 48


def framed(fields: Sequence[Field], known: Sequence[Known], size: PictureSize) -> Record:
    """Size and pixels of the frame that a record holds; empty for a record without one.

    What is known of its width, length and depth counts; a frame that is known itself stays as it is.
    """
    blob = next((one for one in fields if isinstance(one, BlobField) and one.key == "Frame"), None)
    keys = {one.key for one in fields if isinstance(one, ScalarField)}
    if blob is None or not {"NumPixels", "NumLines"} <= keys:
        return {}
    wanted = _number(known, "NumLinesRequired", 0) or size.lines
    width, bits = _number(known, "NumPixels", size.pixels), _number(known, "BitsPerPixel", BITS_PER_PIXEL)
    depth = max(1, (bits + 7) // 8)
    lines = min(_number(known, "NumLines", wanted), LARGEST_PAYLOAD // max(1, width * depth))
    if any(blob.key in source for source in known):
        return {"NumPixels": width, "NumLines": lines, "BitsPerPixel": bits}
    frame = test_picture(width, lines, bits)
    return {"NumPixels": width, "NumLines": lines, "BitsPerPixel": bits, blob.key: frame}


def test_picture(width: int, lines: int, bits: int) -> bytes:
    """A grey wedge from black on the left to white on the right, with a white rim and a black square at its
    upper left: whoever mixes up rows, columns or bytes sees it.

    Line by line; a pixel of more than 8 bits takes as many bytes as it needs, the highest first.
    """
    depth, white = max(1, (bits + 7) // 8), (1 << bits) - 1
    side = min(width, lines) // 4
    wedge = [at * white // max(1, width - 1) for at in range(width)]
    rim = _line([white] * width, depth)
    plain = _line([white, *wedge[1:-1], white][:width], depth)
    square = _line([white, *[0] * side, *wedge[1 + side : -1], white][:width], depth)
    rows = (rim if at in (0, lines - 1) else square if at <= side else plain for at in range(lines))
    return b"".join(rows)


def _line(values: Sequence[int], depth: int) -> bytes:
    return b"".join(value.to_bytes(depth, "big") for value in values)


def _number(known: Sequence[Known], key: str, otherwise: int) -> int:
    found = (source[key] for source in known if isinstance(source.get(key), int))
    value = next(found, otherwise)
    return value if isinstance(value, int) else otherwise
