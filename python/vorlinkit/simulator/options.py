"""The simulator's command line."""

from __future__ import annotations

import argparse
import re
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Final

from .answer import LARGEST_PAYLOAD
from .state.clock import LATEST
from .state.machine import MachineOptions
from .state.pictures import PictureSize

DEFAULT_PORT: Final = 50713
LONGEST_WAIT: Final = 0xFFFFFFFF
"""Milliseconds."""

_EPILOGUE: Final = """\
What the simulator checks of a request, and the flags of majorError that it answers with:
  header length not 14             HeaderLengthIncorrect    access key not 5A C3 1E 87   AccessKeyIncorrect
  not a request                    UnexpectedHeaderType     unknown kind of frame        UnsupportedHeaderType
  command not in the catalogue     UnsupportedCommandId     payload not of the layout    DataLengthMismatch
  client id of another client      IncorrectClientId        (client id 0 is taken from everyone)
  with --strict-client-id          ClientIdRequired         when the client id is 0
  with --strict-control            ExclusiveControlRequired when a command would change the machine
A version other than 1 is answered with the warning UnknownRequestVersion.

Rules for misbehaviour, in words of key=value; docs/simulator.md lists them all:
  --rule "command=11 request=2 delay=500"        the 2nd GetMachineInfo is answered 500 ms late
  --rule "command=GetServerTime no_answer"       never answered
  --rule "connection=1 drop_after=3"             the first connection ends after three frames
"""


@dataclass(frozen=True)
class Options:
    """Everything that the command line says."""

    host: str
    port: int
    catalogue: Path | None
    scenario: Path | None
    rules: tuple[str, ...]
    machine: MachineOptions
    notify_every: int
    motor_interval: int
    clock: int | None
    events: bool
    control: bool


PROGRAM: Final = "python3 -m vorlinkit.simulator"


def parse(arguments: Sequence[str] | None = None, program: str = PROGRAM) -> Options:
    """Read the command line of a program of this name; exits with a message on a mistake."""
    given = _parser(program).parse_args(arguments)
    return Options(
        host=given.host,
        port=given.port,
        catalogue=given.catalogue,
        scenario=given.scenario,
        rules=tuple(given.rule),
        machine=MachineOptions(
            strict_control=given.strict_control,
            strict_client_id=given.strict_client_id,
            notify_at_once=not given.notify_on_change_only,
            prefer=tuple(given.prefer),
            blob_size=given.blob_size,
            picture=given.frame_size,
        ),
        notify_every=given.notify_every,
        motor_interval=given.motor_interval,
        clock=given.clock,
        events=given.events or given.control,
        control=given.control,
    )


def _parser(program: str = PROGRAM) -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog=program,
        description="A simulated sorting machine that speaks VORLIN, for when no real one is at hand.",
        epilog=_EPILOGUE,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("--host", default="127.0.0.1", help="address to listen on (default: this computer alone)")
    add(
        "--port",
        type=_port,
        default=DEFAULT_PORT,
        help=f"port to listen on, 0 for a free one (default {DEFAULT_PORT})",
    )
    add("--catalogue", type=Path, metavar="FILE", help="catalogue.json to take the layouts from")
    add("--scenario", type=Path, metavar="FILE", help="rules for misbehaviour, as TOML or JSON")
    add(
        "--rule",
        action="append",
        default=[],
        metavar="RULE",
        help="one rule for misbehaviour; may be repeated",
    )
    add(
        "--strict-control",
        action="store_true",
        help="ask for exclusive control where a command changes the machine",
    )
    add(
        "--strict-client-id",
        action="store_true",
        help="refuse requests of clients that have not asked for an id",
    )
    add(
        "--notify-every",
        type=_up_to(LONGEST_WAIT),
        default=0,
        metavar="MS",
        help="repeat every subscribed notification",
    )
    add("--notify-on-change-only", action="store_true", help="no notification just for having subscribed")
    add(
        "--motor-interval",
        type=_up_to(LONGEST_WAIT),
        default=50,
        metavar="MS",
        help="time between two motor steps (default 50)",
    )
    add(
        "--clock",
        type=_up_to(LATEST),
        metavar="SECONDS",
        help="have the machine's clock stand still at this time",
    )
    add(
        "--blob-size",
        type=_up_to(LARGEST_PAYLOAD),
        default=64,
        metavar="BYTES",
        help="size of byte blobs other than frames (default 64)",
    )
    add(
        "--frame-size",
        type=_picture,
        default=PictureSize(),
        metavar="WIDTHxLINES",
        help="size of captured frames in pixels (default 64x48)",
    )
    add(
        "--prefer",
        action="append",
        default=[],
        metavar="COMMAND",
        help="of two commands with one id, answer as this",
    )
    add("--events", action="store_true", help="tell what happens, one JSON object per line")
    add(
        "--control",
        action="store_true",
        help="take lines from standard input that drive it (implies --events)",
    )
    return parser


def _port(text: str) -> int:
    if text.isdigit() and int(text) <= 65535:
        return int(text)
    raise argparse.ArgumentTypeError(f"{text!r} is not a port (0 to 65535)")


def _picture(text: str) -> PictureSize:
    match = re.fullmatch("([1-9][0-9]{0,4})x([1-9][0-9]{0,4})", text)
    size = PictureSize(int(match[1]), int(match[2])) if match is not None else None
    if size is None or max(size.pixels, size.lines) > 0xFFFF or size.pixels * size.lines > LARGEST_PAYLOAD:
        raise argparse.ArgumentTypeError(
            f"{text!r} is not a size such as 64x48, each up to 65535 and {LARGEST_PAYLOAD} pixels in all"
        )
    return size


def _up_to(most: int) -> Callable[[str], int]:
    def number(text: str) -> int:
        if re.fullmatch("[0-9]{1,20}", text) and int(text) <= most:
            return int(text)
        raise argparse.ArgumentTypeError(f"{text!r} is not a whole number from 0 to {most}")

    return number
