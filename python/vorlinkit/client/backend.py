"""The one place that chooses what lies below the client: the extension module, or pure Python."""

from __future__ import annotations

import os
from functools import cache
from typing import Any, Final

from .link import Link, LinkOptions

VARIABLE: Final = "VORLINKIT_BACKEND"


@cache
def name() -> str:
    """ "native" or "python": as the environment variable VORLINKIT_BACKEND says, else native where it loads."""
    asked = os.environ.get(VARIABLE, "")
    if asked in ("native", "python"):
        return asked
    if asked:
        raise ImportError(f'{VARIABLE} is "native" or "python", not "{asked}"')
    try:
        import vorlinkit_python  # noqa: F401
    except ImportError:
        return "python"
    return "native"


@cache
def records() -> Any:
    """The record classes and their functions, by the names that they have in the extension module."""
    if name() == "native":
        import vorlinkit_python

        return vorlinkit_python
    from . import record_classes

    return record_classes


def make_link(options: LinkOptions) -> Link:
    """A link that is not connected yet."""
    if name() == "native":
        from .native_link import NativeLink

        return NativeLink(options)
    from .socket_link import SocketLink

    return SocketLink(options)
