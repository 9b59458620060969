"""Names near a misspelt one."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Final

_NOTHING: Final = str.maketrans("", "", "_- ")


def folded(name: str) -> str:
    """A name as it is compared: case, underscores, dashes and blanks do not count."""
    return name.translate(_NOTHING).lower()


def near(word: str, names: Iterable[str], most: int = 3) -> list[str]:
    """The names that were probably meant, the best first."""
    import difflib  # a few milliseconds that a command line without a slip does not pay

    by_fold: dict[str, str] = {}
    for name in names:
        by_fold.setdefault(folded(name), name)
    wanted = folded(word)
    found = difflib.get_close_matches(wanted, by_fold, most, 0.8)
    found = found or difflib.get_close_matches(wanted, by_fold, most)
    if len(wanted) > 2:
        found += sorted((name for name in by_fold if wanted in name and name not in found), key=len)
    return [by_fold[name] for name in found[:most]]


def hint(word: str, names: Iterable[str]) -> str:
    """`` Did you mean A or B?``, or nothing."""
    found = near(word, names)
    return f" Did you mean {' or '.join(found)}?" if found else ""
