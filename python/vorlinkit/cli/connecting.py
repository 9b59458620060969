"""What the sub-commands that talk to a machine share: the connection, consent, and exclusive control."""

from __future__ import annotations

import sys
from argparse import Namespace
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from typing import TYPE_CHECKING, Any

from .exits import UsageError
from .waiting import Waiting

if TYPE_CHECKING:
    from vorlinkit.catalogue import Command
    from vorlinkit.client.machine import Machine


def open_machine(arguments: Namespace, **options: Any) -> Machine:
    """Connect as the options say. Raises ConnectError."""
    from vorlinkit.client import backend
    from vorlinkit.client.machine import connect

    try:
        backend.name()
    except ImportError as error:
        raise UsageError(f"{error}. 'vorlinkit doctor' tells what is installed.") from None
    if arguments.timeout is not None:
        options |= {"timeout": arguments.timeout, "connect_timeout": arguments.timeout}
    if not arguments.debug:
        _keep_the_log_quiet()
    with Waiting(f"a connection to {arguments.host}"):
        return connect(arguments.host.name, arguments.host.port, **options)


@contextmanager
def control(machine: Machine, arguments: Namespace) -> Iterator[None]:
    """Exclusive control for the length of a block, if it was asked for."""
    with ExitStack() as held:
        if arguments.control:
            with Waiting(f"exclusive control of {arguments.host}"):
                held.enter_context(machine.exclusive_control(user=arguments.user, force=arguments.force))
        yield


def consent(command: Command, arguments: Namespace, *, sent: bool = True) -> None:
    """Ask whether to send what changes the machine, on a terminal; raises UsageError if it is not to be.

    sent: whether the command itself is sent at all.
    """
    if not arguments.control and (arguments.user is not None or arguments.force):
        raise UsageError("--user and --force say how --control is taken; give that, too.")
    does = []
    if sent and command.effect == "change":
        does.append(f"{command.name} may change the machine at {arguments.host}")
    if arguments.force:
        does.append("--force takes exclusive control away from whoever has it")
    if not does or arguments.yes:
        return
    if not (sys.stdin.isatty() and sys.stderr.isatty()):
        raise UsageError(
            f"{'; '.join(does)}. Nothing was sent: without a terminal to ask at, --yes is needed."
        )
    print(f"{'; '.join(does)}. Send it? [y/N] ", end="", file=sys.stderr, flush=True)
    if sys.stdin.readline().strip().lower() not in ("y", "yes"):
        raise UsageError("Nothing was sent.")


def warn(machine: Machine) -> None:
    """Pass on what the machine warned of."""
    if machine.last_warning is not None:
        print(f"vorlinkit: warning: {machine.last_warning}", file=sys.stderr)


def _keep_the_log_quiet() -> None:
    """What matters is told as an error or a warning of our own; the log is for --debug."""
    import logging

    logging.getLogger("vorlinkit").addHandler(logging.NullHandler())
