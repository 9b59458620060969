"""``vorlinkit watch HOST COMMAND [FIELD=VALUE ...]``: notifications as they come."""

from __future__ import annotations

import sys
import time
from argparse import Namespace
from collections.abc import Iterator
from datetime import datetime
from typing import TYPE_CHECKING, Any, Final

from vorlinkit.catalogue import Command, load
from vorlinkit.client.conversation import Lost, MachineEvent
from vorlinkit.client.errors import RequestTimeout
from vorlinkit.client.methods import SubscribeMethods
from vorlinkit.client.records import to_dict

from .connecting import consent, control, open_machine, warn
from .exits import OK, UsageError
from .lookup import command_called
from .output import Output
from .shown import NESTED, own_values, show
from .values import call_values, check_values
from .waiting import Waiting

if TYPE_CHECKING:
    from vorlinkit.client.subscription import Subscription

SLICE: Final = 1.0
"""Seconds of one wait: Ctrl-C is heard between two on every system."""


def run(arguments: Namespace, output: Output) -> int:
    command = command_called(load(), arguments.command)
    method = getattr(SubscribeMethods, command.snake, None)
    if method is None:
        raise UsageError(f"{command.name} has no notifications. 'vorlinkit commands' tells which have.")
    values = call_values(command, arguments.fields, method)
    if not command.unasked:
        check_values(command, values, method)
    consent(command, arguments, sent=not command.unasked)
    waiting = Waiting(f"notifications of {command.name}")

    def tell(event: MachineEvent) -> None:
        with waiting.aside():
            print(f"vorlinkit: {_in_words(event)}", file=sys.stderr)

    with open_machine(arguments, on_event=tell) as machine, control(machine, arguments):
        with Waiting(f"{command.name} at {arguments.host}"):
            subscription = method(machine.subscribe, **values)
        with subscription, waiting:
            for number, notification in enumerate(_taken(subscription, arguments), 1):
                told = to_dict(notification, describe=True)
                with waiting.aside():
                    _print(told, output)
                _progress(waiting, command, told, number, arguments.count)
        if subscription.dropped:
            print(
                f"vorlinkit: {subscription.dropped} notifications came too fast and were lost",
                file=sys.stderr,
            )
        warn(machine)
    return OK


def _taken(subscription: Subscription[Any], arguments: Namespace) -> Iterator[Any]:
    """As many notifications as asked for; raises RequestTimeout if time is up before that."""
    end = time.monotonic() + arguments.duration if arguments.duration else None
    left = arguments.count
    while left is None or left > 0:
        wait = SLICE if end is None else min(SLICE, end - time.monotonic())
        if wait <= 0:
            if left is None:
                return
            came = f"{arguments.count - left} of {arguments.count} notifications came"
            raise RequestTimeout(f"{came} within {arguments.duration:g} s", timeout=arguments.duration)
        try:
            yield subscription.get(wait)
        except RequestTimeout:
            continue
        left = None if left is None else left - 1


def _print(told: dict[str, Any], output: Output) -> None:
    now = datetime.now().astimezone()
    if output.as_json:
        output.record({"received": now.isoformat(timespec="milliseconds"), **told})
        return
    stamp = output.paint(f"{now:%H:%M:%S}.{now.microsecond // 1000:03}", "head")
    if any(isinstance(value, NESTED) for value in told.values()):
        output.line(stamp)
        show(output, told, "  ")
        return
    single = [f"{output.paint(name, 'note')} {text}" for name, text in own_values(told).items()]
    output.line("  ".join([stamp, *single]))


def _progress(
    waiting: Waiting, command: Command, told: dict[str, Any], number: int, wanted: int | None
) -> None:
    message = command.notification
    for field in message.fields if message is not None else ():
        if command.progress and getattr(field, "key", "") == command.progress:
            waiting.reached(told[field.attribute] / 100)
            return
    if wanted is not None:
        waiting.reached(number / wanted)


def _in_words(event: MachineEvent) -> str:
    if isinstance(event, Lost):
        return f"the connection is lost: {event.reason}"
    failed = "".join(f"; {name}: {error}" for name, error in event.failed.items())
    return f"connected again after {event.away:.1f} s{failed}"
