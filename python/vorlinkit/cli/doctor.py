"""``vorlinkit doctor [HOST]``: what is installed, and whether a machine can be talked to; what to do where not."""

from __future__ import annotations

import importlib.util
import platform
import socket
import sys
from argparse import Namespace
from collections.abc import Callable, Iterator
from typing import Final, NamedTuple

import vorlinkit
from vorlinkit import catalogue
from vorlinkit.client import backend
from vorlinkit.client.errors import CommandRefused, ProtocolRefusal, VorlinError
from vorlinkit.wire import frames

from .arguments import Host
from .connecting import open_machine
from .exits import NO_CONNECTION, OK, PROTOCOL, TIME_OUT, USAGE, code_of
from .output import Output
from .waiting import Waiting

GET_CLIENT_ID: Final = 1
PATIENCE: Final = 3.0
"""Seconds, where --timeout does not say otherwise."""


class Finding(NamedTuple):
    """One line. `code`: the exit code that it asks for; `advice`: what to do about it."""

    check: str
    found: str
    code: int = OK
    advice: str = ""


def run(arguments: Namespace, output: Output) -> int:
    code = OK
    for finding in _findings(arguments):
        code = code or finding.code
        if output.as_json:
            record = {"check": finding.check, "ok": finding.code == OK}
            output.record({**record, "found": finding.found, "advice": finding.advice})
            continue
        state = "failed" if finding.code else "ok"
        output.line(f"{output.paint(state.ljust(6), state)}  {finding.check}: {finding.found}")
        if finding.advice:
            output.line(f"        {finding.advice}")
    return code


def _findings(arguments: Namespace) -> Iterator[Finding]:
    yield Finding("version", f"vorlinkit {vorlinkit.__version__}")
    yield Finding("Python", f"{platform.python_version()} at {sys.executable}, {platform.platform()}")
    yield _back_end()
    yield _catalogue()
    yield _extras()
    if arguments.host is None:
        return
    for check in (_name, _port, _speaks):
        finding = check(arguments.host, arguments.timeout or PATIENCE)
        yield finding
        if finding.code:
            return
    yield from _session(arguments)


# -- what is installed -------------------------------------------------------------------------------


def _back_end() -> Finding:
    try:
        import vorlinkit_python  # noqa: F401

        missing = ""
    except ImportError as error:
        missing = str(error)
    try:
        chosen = backend.name()
    except ImportError as error:
        return Finding("back end", str(error), USAGE, f"Correct or unset {backend.VARIABLE}.")
    if chosen == "native" and missing:
        advice = f"Unset {backend.VARIABLE}, or install a wheel for this Python and system."
        return Finding("back end", f"native is asked for, but does not load: {missing}", USAGE, advice)
    if chosen == "native":
        return Finding("back end", "native")
    why = f"the extension module does not load: {missing}" if missing else f"{backend.VARIABLE} says so"
    return Finding("back end", f"pure Python ({why})")


def _catalogue() -> Finding:
    try:
        loaded = catalogue.load()
    except catalogue.CatalogueError as error:
        return Finding("catalogue", "cannot be loaded", USAGE, " ".join(str(error).split()))
    standings = ", ".join(f"{number} {standing}" for standing, number in sorted(loaded.standings().items()))
    return Finding("catalogue", f"{len(loaded.commands)} commands; layouts: {standings}; {loaded.path}")


def _extras() -> Finding:
    if importlib.util.find_spec("tqdm") is not None:
        return Finding("extras", "tqdm, for progress bars")
    return Finding(
        "extras", "none; progress is told in plain text", advice="Optional: pip install vorlinkit[progress]"
    )


# -- how far we get ----------------------------------------------------------------------------------


def _name(host: Host, _: float) -> Finding:
    try:
        with Waiting(f"the address of {host.name}"):
            found = socket.getaddrinfo(host.name, host.port, type=socket.SOCK_STREAM)
    except (OSError, UnicodeError) as error:
        advice = "Check the name, or give the machine's address in numbers."
        return Finding("name", f"{host.name} has no address: {error}", NO_CONNECTION, advice)
    return Finding("name", f"{host.name} is {', '.join(dict.fromkeys(str(one[4][0]) for one in found))}")


def _port(host: Host, timeout: float) -> Finding:
    try:
        with Waiting(f"a connection to {host}"), socket.create_connection(host, timeout):
            return Finding("port", f"{host} accepts connections")
    except ConnectionRefusedError:
        advice = (
            "The computer is there, but nothing listens: is the machine's server running, is the port right?"
        )
        return Finding("port", f"{host} refuses connections", NO_CONNECTION, advice)
    except OSError as error:
        advice = "Is the machine switched on and on this network? A firewall may be between."
        return Finding("port", f"{host} cannot be reached: {error}", NO_CONNECTION, advice)


def _speaks(host: Host, timeout: float) -> Finding:
    """With bare bytes, as the client would only say that it does not understand."""
    not_vorlin = "Something else listens there; is the port right?"
    try:
        with Waiting(f"an answer from {host}"), socket.create_connection(host, timeout) as line:
            line.settimeout(timeout)
            line.sendall(frames.request(GET_CLIENT_ID))
            start = _read(line, frames.START_SIZE)
    except TimeoutError:
        advice = f"{not_vorlin} A machine may also be frozen, or have no room for one more client."
        return Finding("VORLIN", f"no answer within {timeout:g} s", TIME_OUT, advice)
    except OSError as error:
        return Finding("VORLIN", f"the connection broke: {error}", PROTOCOL, not_vorlin)
    if not start:
        return Finding("VORLIN", "the connection was closed without an answer", PROTOCOL, not_vorlin)
    expected = frames.PROTOCOL + bytes((frames.VERSION,))
    if start[:3] != expected or start[3:] not in (bytes((frames.RESPONSE,)), bytes((frames.NOTIFICATION,))):
        return Finding("VORLIN", f"the answer begins with {start!r}, not {expected!r}", PROTOCOL, not_vorlin)
    return Finding("VORLIN", f"version {start[2]} is spoken")


def _read(line: socket.socket, size: int) -> bytes:
    """So many bytes, fewer if the other side closes before that."""
    found = b""
    while len(found) < size and (more := line.recv(size - len(found))):
        found += more
    return found


# -- what the machine says ---------------------------------------------------------------------------


def _session(arguments: Namespace) -> Iterator[Finding]:
    try:
        machine = open_machine(arguments, reconnect=False)
    except VorlinError as error:
        yield Finding("session", str(error), code_of(error), "--debug tells more.")
        return
    with machine:
        given = machine.client_id
        yield Finding("client id", str(given) if given else "none was given; requests go out with 0")

        def about() -> str:
            found = machine.get_machine_info()
            return f"{found.machine_type}, serial number {found.serial_number}, interface {found.interface_version}"

        def control() -> str:
            status = machine.register_for_exclusive_control_notifications().exclusive_control_status
            return f"status {status} (the numbering is the machine's; mostly 0 is nobody, 1 you, 2 another client)"

        def commands() -> str:
            listed = {one.command_id for one in machine.get_supported_commands().list_of_commands}
            return _compared(listed)

        yield from (_asked("machine", about), _asked("control", control), _asked("commands", commands))


def _asked(check: str, ask: Callable[[], str]) -> Finding:
    try:
        return Finding(check, ask())
    except (CommandRefused, ProtocolRefusal) as error:
        return Finding(check, f"the machine does not tell: {error}")
    except VorlinError as error:
        return Finding(check, str(error), code_of(error), "--debug tells more.")


def _compared(supported: set[int]) -> str:
    """What the machine knows against what the catalogue does."""
    try:
        known = {one.id: one.name for one in catalogue.load().commands}
    except catalogue.CatalogueError:
        return f"{len(supported)} supported"
    missing = [name for number, name in known.items() if number not in supported]
    foreign = sorted(str(number) for number in supported - known.keys())
    parts = [f"{len(supported)} supported"]
    if missing:
        parts.append(f"{len(missing)} of the catalogue's are not: {', '.join(missing)}")
    if foreign:
        parts.append(f"{len(foreign)} that the catalogue does not know: {', '.join(foreign)}")
    return "; ".join(parts)
