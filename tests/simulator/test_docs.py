"""The page about the simulator keeps its promises."""

from __future__ import annotations

import re
import tomllib

import pytest
from conftest import ROOT, Bench
from vorlinkit.catalogue import Catalogue
from vorlinkit.simulator.faults.actions import ACTIONS
from vorlinkit.simulator.faults.scenario import Scenario, parse_text
from vorlinkit.simulator.options import _parser
from vorlinkit.simulator.state.machine import disclaimer

PAGE = (ROOT / "docs" / "simulator.md").read_text(encoding="utf-8")


def blocks(language: str) -> list[str]:
    return re.findall(rf"^```{language}\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)


def test_the_python_example_runs() -> None:
    pytest.importorskip("vorlinkit_python", reason="the extension module was not built")
    (example,) = blocks("python")
    exec(compile(example, "docs/simulator.md", "exec"), {})


def test_rules_on_the_page_are_rules(catalogue: Catalogue) -> None:
    scenario = Scenario()
    for table in tomllib.loads(blocks("toml")[0])["rule"]:
        scenario.add(table, catalogue)
    for text in re.findall(r'--rule "([^"]+)"', PAGE):
        scenario.add(parse_text(text), catalogue)
    assert len(scenario.rules) + len(scenario.connection_rules) == 4


def test_lines_of_control_on_the_page_are_carried_out(bench: Bench) -> None:
    simulator = bench.simulator()
    lines = [line for block in blocks("text") for line in block.splitlines() if line.startswith("set ")]
    for line in lines:
        simulator.control(line)
    assert len(lines) == 4


def test_the_page_shows_what_the_simulator_says_of_itself(bench: Bench) -> None:
    told = "\n".join(disclaimer(bench.catalogue))
    assert told in PAGE and told in "\n".join(bench.simulator().output)


def test_every_action_and_option_is_on_the_page() -> None:
    for action in ACTIONS:
        assert f"`{action}`" in PAGE
    for option in re.findall(r"^  (--[a-z-]+)", _parser().format_help(), re.MULTILINE):
        assert f"`{option}" in PAGE
