"""``vorlinkit status [WORD]``: how sure the layouts of payloads are."""

from __future__ import annotations

from argparse import Namespace
from collections import Counter

from vorlinkit.catalogue import load

from .exits import OK, UsageError
from .hints import folded, hint
from .output import Output


def run(arguments: Namespace, output: Output) -> int:
    word, wanted = arguments.word or "", arguments.standing
    layouts = [message for _, _, message in load().layouts()]
    found = [one for one in layouts if folded(word) in folded(one.type) and wanted in (None, one.standing)]
    if not found and not any(folded(word) in folded(one.type) for one in layouts):
        raise UsageError(f"No payload type has {word!r} in it.{hint(word, (one.type for one in layouts))}")
    if output.as_json:
        for one in found:
            record = {"type": one.type, "standing": one.standing, "why": one.why}
            output.record({**record, "confirmed_by": one.confirmed_by})
        return OK
    output.table(
        ("payload", "standing", "why"),
        [(one.type, one.standing, one.confirmed_by or one.why) for one in found],
    )
    counts = Counter(one.standing for one in found)
    output.line(", ".join(f"{counts[standing]} {standing}" for standing in sorted(counts)) or "none")
    return OK
