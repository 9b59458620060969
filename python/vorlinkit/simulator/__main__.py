"""``python3 -m vorlinkit.simulator``: start the simulator, say what it is, serve until told to stop."""

from __future__ import annotations

import asyncio
import signal
import sys
import threading
from collections.abc import Sequence

from vorlinkit import catalogue as catalogues

from .faults.misbehaviour import ScenarioError
from .faults.scenario import parse_text, read_file
from .network.events import EventLog
from .network.server import ListenError, SimulatorServer, open_scenario
from .options import PROGRAM, Options, parse
from .state.machine import disclaimer

STOPPING_SIGNALS = (signal.SIGINT, signal.SIGTERM)


def main(arguments: Sequence[str] | None = None, program: str = PROGRAM) -> int:
    """Run the simulator as a program of this name; returns the exit code."""
    options = parse(arguments, program)
    try:
        return asyncio.run(_serve(options))
    except (catalogues.CatalogueError, ScenarioError, ListenError) as error:
        print(f"vorlinkit simulator: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 0


async def _serve(options: Options) -> int:
    catalogue = catalogues.load(options.catalogue)
    for name in options.machine.prefer:
        if not any(name == command.name for command in catalogue.commands):
            raise ScenarioError(f"--prefer: there is no command {name!r}")
    tables = [*(read_file(options.scenario) if options.scenario is not None else ())]
    tables += [parse_text(rule) for rule in options.rules]
    server = SimulatorServer(catalogue, options, open_scenario(catalogue, tables), EventLog(options.events))
    host, port = await server.start()
    _stop_on_signals(server)
    for line in disclaimer(catalogue):
        print(line)
    print(f"Listening on {host}:{port}", flush=True)
    if options.control:
        _take_control(server)
    await server.run()
    for number in STOPPING_SIGNALS:
        signal.signal(number, signal.SIG_IGN)  # the interpreter would end by them while it shuts down
    return 0


def _stop_on_signals(server: SimulatorServer) -> None:
    """Stop in good order on SIGINT and SIGTERM; a second signal changes nothing any more."""
    loop = asyncio.get_running_loop()

    def stop(*_: object) -> None:
        try:
            loop.call_soon_threadsafe(server.stop)
        except RuntimeError:
            pass  # it has stopped already

    for number in STOPPING_SIGNALS:
        signal.signal(number, stop)


def _take_control(server: SimulatorServer) -> None:
    """Read control lines on a thread of their own: standard input may be a pipe, a file or a terminal."""
    loop = asyncio.get_running_loop()

    def read() -> None:
        try:
            for line in sys.stdin:
                if line.strip():
                    loop.call_soon_threadsafe(server.control, line)
            loop.call_soon_threadsafe(server.stop)
        except RuntimeError:
            pass  # the loop has ended meanwhile

    threading.Thread(target=read, daemon=True).start()


if __name__ == "__main__":
    sys.exit(main())
