"""The command line: ``vorlinkit``, and ``python3 -m vorlinkit``.

One module per sub-command, loaded when it is asked for; each has ``run(arguments, output) -> exit code``.

* ``arguments``: the parser. ``exits``: exit codes, and which error ends with which.
* ``output``: tables for people, JSON lines for programs. ``waiting``: what shows that something takes long.
* ``hints``: names near a misspelt one. ``values``: FIELD=VALUE words. ``shown``: payloads as they are printed.
"""

from __future__ import annotations

import sys
from collections.abc import Sequence


def main(argv: Sequence[str] | None = None) -> int:
    """Run one command line (``sys.argv`` unless given) and return its exit code; never raises, but for a bug in it
    with ``--debug``."""
    try:
        from . import running

        return running.run(sys.argv[1:] if argv is None else argv)
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:
        # Whoever read our output has had enough. What is left of it must not be complained about at exit.
        from .output import discard

        discard(sys.stdout)
        return 0
