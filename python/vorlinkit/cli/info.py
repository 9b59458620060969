"""``vorlinkit info HOST``: what machine it is."""

from __future__ import annotations

from argparse import Namespace

from .connecting import open_machine, warn
from .exits import OK
from .output import Output
from .shown import show


def run(arguments: Namespace, output: Output) -> int:
    with open_machine(arguments, reconnect=False) as machine:
        about = machine.get_machine_info()
        found = {
            "host": arguments.host.name,
            "port": arguments.host.port,
            "client_id": machine.client_id,
            "serial_number": about.serial_number,
            "machine_type": about.machine_type,
            "interface_version": about.interface_version,
            "interface_type": about.interface_type,
            "module_count": about.module_count,
        }
        warn(machine)
    if output.as_json:
        output.record(found)
    else:
        show(output, found)
    return OK
