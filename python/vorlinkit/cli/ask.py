"""``vorlinkit ask HOST COMMAND [FIELD=VALUE ...]``: one command and its answer."""

from __future__ import annotations

from argparse import Namespace
from typing import Any

from vorlinkit.catalogue import load
from vorlinkit.client.errors import CommandRefused
from vorlinkit.client.methods import Methods
from vorlinkit.client.records import to_dict

from .connecting import consent, control, open_machine, warn
from .exits import OK
from .lookup import command_called
from .output import Output
from .shown import show
from .values import call_values, check_values
from .waiting import Waiting


def run(arguments: Namespace, output: Output) -> int:
    command = command_called(load(), arguments.command)
    method = getattr(Methods, command.snake)
    values = call_values(command, arguments.fields, method)
    check_values(command, values, method)
    consent(command, arguments)
    with open_machine(arguments, reconnect=False) as machine, control(machine, arguments):
        try:
            with Waiting(f"{command.name} at {arguments.host}"):
                response = method(machine, **values)
        except CommandRefused as refusal:
            _print(refusal.response, output)
            raise
        finally:
            warn(machine)
        _print(response, output)
    return OK


def _print(response: Any, output: Output) -> None:
    values = {} if response is None else to_dict(response, describe=True)
    if output.as_json:
        output.record(values)
    elif values:
        show(output, values)
    else:
        output.line("done")
