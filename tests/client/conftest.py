"""What tests of a connected machine share."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import ExitStack
from typing import Any

import pytest
from faces import Awaits, Threads
from vorlinkit.simulator import SimulatorProcess

Connected = Callable[..., tuple[SimulatorProcess, Any]]


@pytest.fixture(params=[Threads, Awaits], ids=lambda face: face.name)
def face(request: pytest.FixtureRequest) -> Iterator[Threads]:
    face = request.param()
    yield face
    face.end()


@pytest.fixture
def connected(face: Threads) -> Iterator[Connected]:
    """Starts a simulator with options and rules, and connects a machine to it."""
    with ExitStack() as stack:

        def start(*options: str, rules: tuple[str, ...] = (), **words: Any) -> tuple[SimulatorProcess, Any]:
            simulator = stack.enter_context(SimulatorProcess(*options, rules=rules))
            words = {"reconnect_delay": 0.05, "timeout": 5.0, **words}
            machine = stack.enter_context(face.connect(simulator.host, simulator.port, **words))
            return simulator, machine

        yield start
