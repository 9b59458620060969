"""Fixtures for the tests of programs that talk to a machine: ``vorlin_simulator`` and ``vorlin_machine``.

pytest finds them by itself where the wheel is installed, and with ``-p vorlinkit.pytest_plugin`` elsewhere. Nothing is
started or imported for tests that do not use them.

The marker ``vorlin`` says what a test needs beyond a plain machine, for a function, a class or a module; the closest
one counts::

    @pytest.mark.vorlin(
        "--strict-control",                                                   # options of the simulator
        rules=["command=GetMachineInfo request=2 delay=500"],                 # what goes wrong
        control=["set GetFeedRate FeedConfigurerID=F1 FeedRate=100"],         # lines of control, once it runs
        connect={"timeout": 2.0},                                             # keywords of vorlinkit.connect
    )
    def test_my_program(vorlin_simulator, vorlin_machine): ...
"""

from __future__ import annotations

from collections.abc import Callable, Generator, Iterator
from typing import TYPE_CHECKING, Any, Final, TypeVar

import pytest

if TYPE_CHECKING:
    from .client.machine import Machine
    from .simulator import SimulatorProcess

KEYWORDS: Final = ("rules", "control", "connect")
Hook = TypeVar("Hook", bound=Callable[..., Any])
_around: Callable[[Hook], Hook] = pytest.hookimpl(hookwrapper=True)
_RUNNING: Final = pytest.StashKey["SimulatorProcess"]()


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers",
        "vorlin(*options, rules=(), control=(), connect={}): how the simulator of this test is started, what goes "
        "wrong, lines of control, and keywords of vorlinkit.connect.",
    )


@pytest.fixture
def vorlin_simulator(request: pytest.FixtureRequest) -> Iterator[SimulatorProcess]:
    """A simulated machine of the test's own, running on a free port of this computer.

    ``host`` and ``port`` say where, ``set`` has it answer given values, ``control`` drives it, ``wait_for`` waits for
    what it tells. What it told last is part of the report if the test fails.
    """
    from .simulator import SimulatorProcess

    options, wanted = _marked(request)
    with SimulatorProcess(*options, rules=wanted.get("rules", ())) as simulator:
        request.node.stash[_RUNNING] = simulator
        for line in wanted.get("control", ()):
            simulator.control(line)
        yield simulator


@pytest.fixture
def vorlin_machine(request: pytest.FixtureRequest, vorlin_simulator: SimulatorProcess) -> Iterator[Machine]:
    """A `vorlinkit.Machine` that is connected to the simulator of this test, and closed behind it."""
    from .client.machine import connect

    _, wanted = _marked(request)
    with connect(vorlin_simulator.host, vorlin_simulator.port, **wanted.get("connect", {})) as machine:
        yield machine


@_around
def pytest_runtest_makereport(item: pytest.Item) -> Generator[None, Any, None]:
    report = (yield).get_result()
    simulator = item.stash.get(_RUNNING, None)
    if report.failed and report.when != "teardown" and simulator is not None:
        report.sections.append(("VORLIN simulator", simulator.log()))


def _marked(request: pytest.FixtureRequest) -> tuple[tuple[str, ...], dict[str, Any]]:
    """Options and keywords of the marker that is closest to the test."""
    marker = request.node.get_closest_marker("vorlin")
    if marker is None:
        return (), {}
    unknown = [key for key in marker.kwargs if key not in KEYWORDS]
    if unknown:
        raise pytest.UsageError(
            f"the marker vorlin has no {unknown[0]!r}; its keywords are {', '.join(KEYWORDS)}"
        )
    return marker.args, marker.kwargs
