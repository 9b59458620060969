"""The machine's clock: whole seconds since 1970, which clients may set. The unit is the simulator's own
choice.
"""

from __future__ import annotations

import time
from typing import Final

LATEST: Final = (1 << 64) - 1
"""Where the clock stops: it travels as 64 bits."""


class Clock:
    """Runs with the computer's clock at an offset, or stands still at a given time until it is set."""

    def __init__(self, standing_at: int | None = None) -> None:
        self._standing = standing_at is not None
        now = time.time()
        self._base = int(now) if standing_at is None else standing_at
        self._since = time.monotonic() - now % 1

    def now(self) -> int:
        """The machine's time."""
        passed = 0 if self._standing else int(time.monotonic() - self._since)
        return min(self._base + passed, LATEST)

    def set(self, timestamp: int) -> None:
        """Set the machine's time; a running clock runs on from there."""
        self._base = timestamp
        self._since = time.monotonic()
