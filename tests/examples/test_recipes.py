"""The recipes do what their page says, on simulated machines."""

from __future__ import annotations

import csv
import os
import re
import signal
import sqlite3
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path

import pytest
from vorlinkit.simulator import SimulatorProcess

ROOT = Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs" / "recipes.md").read_text(encoding="utf-8")
RECIPES = dict(re.findall(r"<!-- recipe: (\w+) -->\n```python\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL))
CONNECT = """\
import vorlinkit
import vorlinkit.aio
PORTS = {ports}
def at(connect):
    return lambda host, **rest: connect("127.0.0.1", PORTS[host], reconnect_delay=0.05, **rest)
vorlinkit.connect, vorlinkit.aio.connect = at(vorlinkit.connect), at(vorlinkit.aio.connect)
"""


Machines = dict[str, SimulatorProcess]


@pytest.fixture
def machines(request: pytest.FixtureRequest) -> Iterator[Machines]:
    """As many as the test asks for; one if it does not."""
    with ExitStack() as stack:
        hosts = [f"192.168.0.{number}" for number in range(20, 20 + getattr(request, "param", 1))]
        yield {host: stack.enter_context(SimulatorProcess()) for host in hosts}


@contextmanager
def started(
    name: str, machines: Machines, folder: Path, changes: dict[str, str] | None = None
) -> Iterator[subprocess.Popen[str]]:
    """The recipe, as a program of its own whose machines are simulated; `changes` make it short."""
    program = RECIPES[name]
    for old, new in (changes or {}).items():
        assert old in program
        program = program.replace(old, new)
    ports = {host: machine.port for host, machine in machines.items()}
    with subprocess.Popen(
        [sys.executable, "-u", "-W", "error", "-c", CONNECT.format(ports=ports) + program],
        cwd=folder,
        text=True,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
    ) as running:
        deadline = threading.Timer(60, running.kill)
        deadline.start()
        try:
            yield running
        finally:
            deadline.cancel()
            running.kill()


def run(name: str, machines: Machines, folder: Path, **changes: str) -> str:
    with started(name, machines, folder, changes) as program:
        output, _ = program.communicate()
    assert program.returncode == 0, output
    return output


def lines_until(program: subprocess.Popen[str], wanted: str) -> str:
    assert program.stdout is not None
    seen = ""
    for line in program.stdout:
        seen += line
        if wanted in line:
            return seen
    raise AssertionError(f"{wanted!r} did not come:\n{seen}")


def test_nine_recipes_take_few_lines() -> None:
    lines = [line for recipe in RECIPES.values() for line in recipe.splitlines() if line.strip()]
    assert len(RECIPES) == 9
    assert len([line for line in lines if not re.match(r"import |from ", line)]) <= 120


def test_poll(machines: Machines, tmp_path: Path) -> None:
    run("poll", machines, tmp_path, **{"range(3600)": "range(3)", "sleep(1)": "sleep(0)"})
    with open(tmp_path / "feed.csv", newline="") as file:
        head, *rows = csv.reader(file)
    assert head == ["time", "wanted", "actual"] and len(rows) == 3
    assert all(float(row[0]) > 1e9 and row[1].isdigit() and row[2].isdigit() for row in rows)


def test_act(machines: Machines, tmp_path: Path) -> None:
    assert run("act", machines, tmp_path) == "motor 1 of AD1 is there\n"


def test_survive(machines: Machines, tmp_path: Path) -> None:
    with started("survive", machines, tmp_path) as program:
        lines_until(program, "feeder 1 is at")
        machines["192.168.0.20"].control("restart away=100")
        assert "Lost(" in lines_until(program, 'Restored(renewed=("GetFeedRate')
        machines["192.168.0.20"].set("GetFeedRate", FeedConfigurerID="F1", ActualFeedRate=77)
        lines_until(program, "feeder 1 is at 77")


@pytest.mark.parametrize("machines", [2], indirect=True)
def test_asyncio(machines: Machines, tmp_path: Path) -> None:
    assert run("asyncio", machines, tmp_path) == "['SIM-0001', 'SIM-0001']\n"


@pytest.mark.parametrize("rule", [None, "command=SetFeedRate request=4 reset"])
def test_settings(rule: str | None, tmp_path: Path) -> None:
    with SimulatorProcess("--strict-control", rules=[rule] if rule else []) as machine:
        output = run("settings", {"192.168.0.20": machine}, tmp_path)
        machine.control("mark")
    if rule is None:
        assert output == ""
    else:
        assert "set: F1, F2, F3; not set:" in output and "SetFeedRate" in output


def test_picture(machines: Machines, tmp_path: Path) -> None:
    run("picture", machines, tmp_path)
    picture = (tmp_path / "frame.pgm").read_bytes()
    assert picture.startswith(b"P5 64 48 255\n") and len(picture) == len(b"P5 64 48 255\n") + 64 * 48


def test_log(machines: Machines, tmp_path: Path) -> None:
    run("log", machines, tmp_path)
    assert "vorlinkit.127.0.0.1 Connected successfully" in (tmp_path / "machine.log").read_text()


def test_pytest(tmp_path: Path) -> None:
    (tmp_path / "test_feed.py").write_text(RECIPES["pytest"])
    command = [
        sys.executable,
        "-m",
        "pytest",
        "-q",
        "-p",
        "vorlinkit.pytest_plugin",
        "-p",
        "no:cacheprovider",
    ]
    done = subprocess.run(command, cwd=tmp_path, capture_output=True, text=True, timeout=120)
    assert done.returncode == 0 and "2 passed" in done.stdout, done.stdout


@pytest.mark.parametrize("machines", [6], indirect=True)
def test_statistics(machines: Machines, tmp_path: Path) -> None:
    def rows() -> list[tuple[str, int]]:
        try:
            with sqlite3.connect(tmp_path / "statistics.db") as table:
                return table.execute("SELECT host, count(*) FROM statistics GROUP BY host").fetchall()
        except sqlite3.OperationalError:  # not made yet
            return []

    with started("statistics", machines, tmp_path, {"sleep(10)": "sleep(0.1)"}) as program:
        wait_for(lambda: len(rows()) == 6 and min(count for _, count in rows()) >= 2, program)
        program.send_signal(signal.SIGINT)
        program.communicate(timeout=30)


def wait_for(condition: Callable[[], bool], program: subprocess.Popen[str]) -> None:
    """What another program writes to a file cannot be awaited, only looked at."""
    end = time.monotonic() + 60
    while not condition():
        assert program.poll() is None and time.monotonic() < end
        os.sched_yield()
