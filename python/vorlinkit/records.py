"""The record classes of all commands, to make values of: ``records.CaptureFrameExRequestCapturablesItem(...)``.

They are those of the extension module where it loads, otherwise the same in pure Python; the client takes and returns
them either way. A class is looked up when it is first used.
"""

from __future__ import annotations

from typing import Any


def __getattr__(name: str) -> Any:
    if not name.startswith("_"):
        from vorlinkit.client.backend import records
        from vorlinkit.client.layouts import layouts

        if name in layouts():
            found = globals()[name] = getattr(records(), name)
            return found
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def __dir__() -> list[str]:
    from vorlinkit.client.layouts import layouts

    return sorted(layouts())
