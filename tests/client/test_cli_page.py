"""Every command of the page about the command line does what the page shows."""

from __future__ import annotations

import re
import shlex
from pathlib import Path

import pytest
from terminal import VORLINKIT, at_terminal
from vorlinkit.simulator import SimulatorProcess

ROOT = Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs" / "command-line.md").read_text(encoding="utf-8")
CONSOLE = re.compile(r"^```console\n(.*?)^```$", re.MULTILINE | re.DOTALL)
QUESTION = "Send it? [y/N] "


def shown_by(command: str, simulator: SimulatorProcess) -> str:
    """What a terminal shows when the command is typed, the machine called `sorter`."""
    where = f"{simulator.host}:{simulator.port}"
    if command == "vorlinkit simulate":
        command += " --port 0 --control < /dev/null"  # which ends it as soon as it listens
    shell = f'vorlinkit() {{ {shlex.join(VORLINKIT)} "$@"; }}; {command.replace(" sorter", f" {where}")}'
    _, shown = at_terminal(["bash", "-c", shell], {QUESTION: "y\n"}, NO_COLOR="1")
    shown = (
        shown.replace(where, "sorter:50713")
        .replace(str(simulator.port), "50713")
        .replace(simulator.host, "sorter")
    )
    shown = re.sub(r"Listening on sorter:\d+\n(.*\n)*", "Listening on 127.0.0.1:50713\n", shown)
    return re.sub(r"^\d\d:\d\d:\d\d\.\d{3}", "13:20:54.613", shown)


def runs(page: str) -> list[tuple[str, str]]:
    """The commands of a page, and what it shows of each."""
    parts = [part for block in CONSOLE.findall(page) for part in re.split(r"^\$ ", block, flags=re.M)[1:]]
    return [(command, shown) for command, _, shown in (part.partition("\n") for part in parts)]


@pytest.mark.parametrize("page", [PAGE], ids=["docs/command-line.md"])
def test_the_page_shows_what_its_commands_print(page: str) -> None:
    found = runs(page)
    assert len(found) > 10
    with SimulatorProcess("--clock", "1767225600", "--motor-interval", "1") as simulator:
        assert [(command, shown_by(command, simulator)) for command, _ in found] == found
