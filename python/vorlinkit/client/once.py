"""Made when first asked for, and once, however many threads ask first at the same time."""

from __future__ import annotations

import threading
from collections.abc import Callable, Hashable
from functools import wraps
from typing import Any, Final, ParamSpec, TypeVar

P = ParamSpec("P")
T = TypeVar("T")

_MAKING: Final = threading.RLock()
"""One for all, since making one thing may ask for another."""


def once(make: Callable[P, T]) -> Callable[P, T]:
    """Like `functools.cache`, whose results may differ for threads that ask at once; for positional arguments."""
    made: dict[tuple[Hashable, ...], Any] = {}

    @wraps(make)
    def get(*words: P.args, **named: P.kwargs) -> T:
        try:
            found: T = made[words]
        except KeyError:
            with _MAKING:
                found = made[words] if words in made else made.setdefault(words, make(*words, **named))
        return found

    return get
