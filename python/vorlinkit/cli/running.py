"""From the words of a command line to an exit code."""

from __future__ import annotations

import sys
from argparse import Namespace
from collections.abc import Sequence
from importlib import import_module

from .arguments import parse
from .output import open_output


def run(argv: Sequence[str]) -> int:
    """Carry the command line out; errors become a line on standard error and their exit code."""
    arguments = Namespace(debug=False)
    try:
        arguments = parse(argv)
        if arguments.debug:
            _log_everything()
        output = open_output(arguments.json, arguments.table, arguments.colour)
        code: int = import_module(f"vorlinkit.cli.{arguments.module}").run(arguments, output)
        sys.stdout.flush()
        return code
    except SystemExit as end:  # --help, --version, or a mistake that argparse has told
        return end.code if isinstance(end.code, int) else 2
    except BrokenPipeError:
        raise
    except Exception as error:
        return _tell(error, arguments)


def _tell(error: Exception, arguments: Namespace) -> int:
    from . import exits

    code = exits.code_of(error)
    if arguments.debug:
        import traceback

        traceback.print_exc()
    elif code == exits.BUG:
        print(f"vorlinkit: {type(error).__name__}: {error} (--debug tells where)", file=sys.stderr)
    else:
        print(f"vorlinkit: {error}{_advice(error)}", file=sys.stderr)
    return code


def _advice(error: Exception) -> str:
    from vorlinkit.client.errors import ProtocolRefusal
    from vorlinkit.wire.frames import MajorError

    if isinstance(error, ProtocolRefusal) and MajorError.ExclusiveControlRequired in error.flags:
        return " (here: --control)"
    return ""


def _log_everything() -> None:
    import logging

    logging.basicConfig(
        stream=sys.stderr,
        level=logging.DEBUG,
        format="%(asctime)s %(levelname)s %(name)s %(message)s (%(filename)s:%(lineno)d)",
    )
