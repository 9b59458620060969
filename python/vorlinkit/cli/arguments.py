"""The words of a command line: sub-commands, their options, and hosts.

Kept quick to build, since every command line builds it: nothing here loads the catalogue or the client.
"""

from __future__ import annotations

import argparse
import re
import sys
from collections.abc import Sequence
from typing import Any, Final, NamedTuple, NoReturn

import vorlinkit

from .hints import hint

DEFAULT_PORT: Final = 50713
LONGEST: Final = 1e6
"""Seconds; whoever means to wait for longer than eleven days leaves the option out."""

_EPILOGUE: Final = """\
exit codes: 0 done, 1 refused by the machine, 2 wrong command line, 3 no connection, 4 time-out,
5 answer that does not follow the protocol or cannot be decoded, 130 stopped with Ctrl-C
"""


class Host(NamedTuple):
    """Where a machine listens."""

    name: str
    port: int

    def __str__(self) -> str:
        return f"[{self.name}]:{self.port}" if ":" in self.name else f"{self.name}:{self.port}"


class Parser(argparse.ArgumentParser):
    """An ArgumentParser that knows what was probably meant. `hand_over`: takes all words as they stand, for another
    program's parser; they are in `words`."""

    def __init__(self, *, hand_over: bool = False, **options: Any) -> None:
        options.update(allow_abbrev=False, add_help=not hand_over)
        super().__init__(**options)
        self._hand_over = hand_over

    def parse_known_args(self, args: Any = None, namespace: Any = None) -> Any:
        if not self._hand_over:
            return super().parse_known_args(args, namespace)
        found, _ = super().parse_known_args([], namespace)
        found.words = list(args)
        return found, []

    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: {message} ({self.prog} --help tells more)\n")

    def _check_value(self, action: argparse.Action, value: Any) -> None:
        if action.choices is None or value in action.choices:
            return
        known = hint(str(value), action.choices) or f" Choose from {', '.join(action.choices)}."
        raise argparse.ArgumentError(action, f"there is no {value!r}.{known}")


def parse(argv: Sequence[str]) -> argparse.Namespace:
    """Read a command line; exits with a message on a mistake. The namespace names its `module` in this folder."""
    parser = build_parser()
    found: argparse.Namespace
    found, left = parser.parse_known_args(argv)
    if left:
        _take_late_words(parser, found, left)
    return found


def _take_late_words(parser: Parser, found: argparse.Namespace, left: Sequence[str]) -> None:
    """Words that argparse leaves behind, because options stood ahead of them, belong to the last list of words."""
    wrong = [word for word in left if word.startswith("-") and word != "-"]
    if not wrong and found.more is not None:
        getattr(found, found.more).extend(left)
        return
    own = subparsers(parser)[found.subcommand]
    word = (wrong or left)[0]
    options = [option for action in own._actions for option in action.option_strings]
    own.error(f"{word!r} is too much." + (hint(word.partition("=")[0], options) if wrong else ""))


def host(text: str) -> Host:
    """``name``, ``name:port``, ``[v6]``, ``[v6]:port``, or a v6 address as it stands."""
    match = re.fullmatch(r"\[([^\[\]]+)\](?::(.*))?|([^:\[\]\s]+)(?::(.*))?", text)
    if match is not None:
        name, port = match[1] or match[3], match[2] if match[1] else match[4]
        if port is None:
            return Host(name, DEFAULT_PORT)
        if re.fullmatch("[0-9]{1,5}", port) and 0 < int(port) < 65536:
            return Host(name, int(port))
        raise argparse.ArgumentTypeError(f"{port!r} is not a port (1 to 65535)")
    if text.count(":") > 1 and re.fullmatch(r"[0-9A-Fa-f:.]+(%\S+)?", text):
        return Host(text, DEFAULT_PORT)
    raise argparse.ArgumentTypeError(f"{text!r} is no host, host:port or [v6]:port")


def seconds(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        value = 0.0
    if 0 < value <= LONGEST:
        return value
    raise argparse.ArgumentTypeError(f"{text!r} is not a number of seconds above 0")


def count(text: str) -> int:
    if re.fullmatch("[0-9]{1,18}", text) and int(text) > 0:
        return int(text)
    raise argparse.ArgumentTypeError(f"{text!r} is not a whole number above 0")


class _Version(argparse.Action):
    def __call__(self, parser: argparse.ArgumentParser, *_: object) -> None:
        print(f"vorlinkit {vorlinkit.__version__}")
        sys.exit(0)


def build_parser() -> Parser:
    """The whole parser; shell completion is made from it, too."""
    parser = Parser(
        prog="vorlinkit",
        description="Talk to sorting machines that speak VORLIN.",
        epilog=_EPILOGUE,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action=_Version, nargs=0, help="print the version and end")
    common = _common_options()
    defaults = dict(json=False, table=False, debug=False, colour=True, timeout=None, more=None)
    _add_common(parser.add_argument_group("for all sub-commands"), argparse.SUPPRESS)
    parser.set_defaults(**defaults)
    adder = parser.add_subparsers(
        dest="subcommand", metavar="SUB-COMMAND", required=True, title="sub-commands"
    )

    def add(name: str, module: str, about: str, **options: Any) -> Parser:
        one: Parser = adder.add_parser(name, help=about, description=about, **options)
        one.set_defaults(module=module)
        return one

    _add_catalogue_commands(add, common)
    _add_machine_commands(add, common)
    add("simulate", "simulate", "start the machine simulator, with its own options", hand_over=True)
    one = add(
        "completion", "completion", "print a script that completes words in your shell", parents=[common]
    )
    one.add_argument("shell", choices=("bash", "zsh", "fish"))
    return parser


def subparsers(parser: argparse.ArgumentParser) -> dict[str, Parser]:
    """The sub-commands of a parser by name. argparse has no public way to its parts."""
    for action in parser._actions:
        if isinstance(action, argparse._SubParsersAction):
            return dict(action.choices)
    return {}


def _common_options() -> Parser:
    common = Parser(hand_over=True)
    _add_common(common, argparse.SUPPRESS)
    return common


def _add_common(to: Any, default: str) -> None:
    """Options may stand ahead of the sub-command and behind it, so none may have a default of its own."""
    add = to.add_argument
    add("--timeout", type=seconds, metavar="SECONDS", default=default, help="wait so long for an answer")
    add("--json", action="store_true", default=default, help="one JSON object a line, on a terminal, too")
    add("--table", action="store_true", default=default, help="tables, into a pipe or file, too")
    add("--debug", action="store_true", default=default, help="log everything, and show where an error arose")
    add("--no-colour", "--no-color", dest="colour", action="store_false", default=default, help="no colours")


def _add_catalogue_commands(add: Any, common: Parser) -> None:
    one = add("commands", "commands", "list the machine's commands", parents=[common])
    one.add_argument("word", nargs="?", help="only those with this word in name, family or title")
    one = add("describe", "describe", "say what a command does, takes and answers", parents=[common])
    one.add_argument("command", help="name or id")
    one = add("decode", "decode", "read a payload", parents=[common])
    one.add_argument("type", help="payload type, such as GetMotorPositionResponse")
    one.add_argument(
        "hex", nargs="*", help="its bytes; without any, or with -, each line of standard input is one"
    )
    one.set_defaults(more="hex")
    one = add("status", "status", "say how sure the layouts of payloads are", parents=[common])
    one.add_argument("word", nargs="?", help="only types with this word in their name")
    one.add_argument(
        "--standing", choices=("confirmed", "assumed", "site-confirmed"), help="only layouts of this standing"
    )


def _add_machine_commands(add: Any, common: Parser) -> None:
    where = "host, host:port or [v6 address]:port"
    one = add("info", "info", "say what machine it is", parents=[common])
    one.add_argument("host", type=host, help=where)
    one = add("ask", "ask", "send one command and print the answer", parents=[common])
    _add_request(one, where)
    _add_rights(one)
    one = add("watch", "watch", "print notifications as they come", parents=[common])
    _add_request(one, where)
    one.add_argument("--count", type=count, metavar="N", help="end after so many")
    one.add_argument(
        "--for",
        type=seconds,
        dest="duration",
        metavar="SECONDS",
        help="end after so long; time-out if --count asks for more",
    )
    _add_rights(one)
    one = add(
        "doctor",
        "doctor",
        "check what is installed, and whether a machine can be talked to",
        parents=[common],
    )
    one.add_argument("host", type=host, nargs="?", help=where)


def _add_request(one: Parser, where: str) -> None:
    one.add_argument("host", type=host, help=where)
    one.add_argument("command", help="name or id")
    one.add_argument(
        "fields",
        nargs="*",
        metavar="FIELD=VALUE",
        help="what the command takes ('vorlinkit describe COMMAND'): numbers decimal or 0x, texts, lists as JSON, "
        "bytes as hexadecimal digits or @file",
    )
    one.set_defaults(more="fields")


def _add_rights(one: Parser) -> None:
    one.add_argument("--yes", action="store_true", help="send what changes the machine without asking first")
    one.add_argument(
        "--control", action="store_true", help="take exclusive control meanwhile, and give it back"
    )
    one.add_argument("--user", metavar="NAME", help="with --control: in this user's name")
    one.add_argument("--force", action="store_true", help="with --control: take it from whoever has it")
