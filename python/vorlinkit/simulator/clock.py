"""The machine's clock: whole seconds since 1970, which clients may set. The unit is the simulator's own
choice.
"""

from __future__ import annotations

import time


class Clock:
    """Runs with the computer's clock at an offset, or stands still at a given time until it is set."""

    def __init__(self, standing_at: int | None = None) -> None:
        self._standing = standing_at is not None
        self._base = time.time() if standing_at is None else float(standing_at)
        self._since = time.monotonic()

    def now(self) -> int:
        """The machine's time."""
        passed = 0.0 if self._standing else time.monotonic() - self._since
        return max(0, int(self._base + passed))

    def set(self, timestamp: int) -> None:
        """Set the machine's time; a running clock runs on from there."""
        self._base = float(timestamp)
        self._since = time.monotonic()
