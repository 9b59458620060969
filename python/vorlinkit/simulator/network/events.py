"""What happens in the simulator, told as lines on standard output: one JSON object per line."""

from __future__ import annotations

import json
import sys
from typing import Any, TextIO


class EventLog:
    """Writes an event as soon as it has happened. Silent unless events were asked for."""

    def __init__(self, enabled: bool, stream: TextIO | None = None) -> None:
        self.enabled = enabled
        self._stream = stream if stream is not None else sys.stdout

    def __call__(self, event: str, **fields: Any) -> None:
        if not self.enabled:
            return
        line = json.dumps({"event": event, **fields})
        try:
            print(line, file=self._stream, flush=True)
        except (BrokenPipeError, ValueError):
            self.enabled = False
