"""What the simulator's tests share: a catalogue, running simulators, and a client of bare bytes."""

from __future__ import annotations

import importlib.util
import subprocess
import sys
from collections.abc import Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

if importlib.util.find_spec("vorlinkit") is None:  # under ctest the build's is on PYTHONPATH
    sys.path.insert(0, str(ROOT / "python"))

from peer import Peer  # noqa: E402
from vorlinkit import catalogue as catalogues  # noqa: E402
from vorlinkit.simulator import SimulatorProcess  # noqa: E402


@pytest.fixture(scope="session")
def catalogue(tmp_path_factory: pytest.TempPathFactory) -> catalogues.Catalogue:
    """The build's catalogue, or one made on the spot when the tests run without a build."""
    path = catalogues.DEFAULT_PATH
    if not path.exists():
        path = tmp_path_factory.mktemp("catalogue") / "catalogue.json"
        subprocess.run([sys.executable, "-m", "generator", "--json", str(path)], cwd=ROOT, check=True)
    return catalogues.load(path)


class Bench:
    """Starts simulators and clients, and stops them all at the end of a test."""

    def __init__(self, stack: ExitStack, catalogue: catalogues.Catalogue) -> None:
        self._stack = stack
        self.catalogue = catalogue

    def simulator(self, *options: str, rules: tuple[str, ...] = ()) -> SimulatorProcess:
        started = SimulatorProcess(*options, rules=rules, catalogue=self.catalogue.path)
        return self._stack.enter_context(started)

    def peer(self, simulator: SimulatorProcess, identified: bool = True) -> Peer:
        peer = Peer(simulator.host, simulator.port, self.catalogue)
        self._stack.callback(peer.socket.close)
        if identified:
            peer.identify()
        return peer


@pytest.fixture
def bench(catalogue: catalogues.Catalogue) -> Iterator[Bench]:
    with ExitStack() as stack:
        yield Bench(stack, catalogue)
