"""The fixtures that a user's own tests get, run as a user runs them."""

from __future__ import annotations

from pathlib import Path

import pytest
import vorlinkit
from vorlinkit.catalogue import Catalogue

pytest_plugins = ["pytester"]

PROGRAM = """
import socket
import sys
import pytest

@pytest.mark.vorlin("--clock", "77", rules=["command=11 no_answer"], control=["set GetServerTime Timestamp=5"])
class TestMarked:
    def test_fails(self, vorlin_simulator):
        vorlin_simulator.set("GetFeedRate", FeedConfigurerID="F1", FeedRate=3)
        assert vorlin_simulator.port == 0

    def test_runs_anew(self, vorlin_simulator):
        socket.create_connection((vorlin_simulator.host, vorlin_simulator.port)).close()
        vorlin_simulator.wait_for("closed", by="client")
        assert not any("GetFeedRate" in str(event) for event in vorlin_simulator.events)

@pytest.mark.vorlin(rule=["command=11 no_answer"])
def test_mistyped(vorlin_simulator): ...

@pytest.mark.vorlin(control=["set GetFedRate FeedRate=1"])
def test_refused(vorlin_simulator): ...
"""
WITH_A_CLIENT = """
import pytest
import vorlinkit.client.errors as errors

@pytest.mark.vorlin(
    rules=["command=GetServerTime no_answer"],
    control=["set GetFeedRate FeedConfigurerID=F1 FeedRate=33"],
    connect={"timeout": 0.2},
)
def test_a_program(vorlin_machine, vorlin_simulator):
    assert vorlin_machine.get_feed_rate("F1").feed_rate == 33
    with pytest.raises(errors.RequestTimeout):
        vorlin_machine.get_server_time()
    vorlin_simulator.wait_for("request", name="GetFeedRate", client=1, carried_out=True)
"""
ALONE = """
import sys

def test_alone(pytestconfig):
    assert pytestconfig.pluginmanager.has_plugin("vorlinkit.pytest_plugin")
    assert not {"vorlinkit.simulator", "vorlinkit.client.machine", "vorlinkit_python", "asyncio"} & set(sys.modules)
"""


@pytest.fixture
def suite(
    pytester: pytest.Pytester, catalogue: Catalogue, monkeypatch: pytest.MonkeyPatch
) -> pytest.Pytester:
    monkeypatch.setenv("VORLINKIT_CATALOGUE", catalogue.path)
    monkeypatch.setenv("PYTHONPATH", str(Path(vorlinkit.__file__).parents[1]))
    return pytester


def test_every_test_has_a_simulator_of_its_own_and_its_log(suite: pytest.Pytester) -> None:
    suite.makepyfile(PROGRAM)
    result = suite.runpytest_inprocess("-p", "vorlinkit.pytest_plugin", "--strict-markers")
    result.assert_outcomes(passed=1, failed=1, errors=2)
    result.stdout.fnmatch_lines_random(
        [
            "*- VORLIN simulator -*",
            'done line=set GetFeedRate FeedConfigurerID="F1" FeedRate=3',
            "*the marker vorlin has no 'rule'; its keywords are rules, control, connect",
            "*there is no command 'GetFedRate'; did you mean GetFeedRate?",
        ]
    )


def test_a_client_is_connected_to_it(suite: pytest.Pytester, monkeypatch: pytest.MonkeyPatch) -> None:
    pytest.importorskip("vorlinkit.client.methods", reason="the client was not built")
    monkeypatch.setenv("VORLINKIT_BACKEND", "python")
    suite.makepyfile(WITH_A_CLIENT)
    suite.runpytest_subprocess("-p", "vorlinkit.pytest_plugin").assert_outcomes(passed=1)


def test_nothing_is_imported_for_other_tests(suite: pytest.Pytester) -> None:
    suite.makepyfile(ALONE)
    suite.runpytest_subprocess("-p", "vorlinkit.pytest_plugin").assert_outcomes(passed=1)
