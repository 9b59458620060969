"""The pages that follow the catalogue: docs/layout-status.md, which is written from it, and what
docs/correcting-a-layout.md tells an integrator to do, as far as the generator goes."""

from __future__ import annotations

import doctest
import json
import re
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from vorlinkit import catalogue as catalogues
from vorlinkit.wire import coder

from generator import emit_effects, emit_status
from generator.__main__ import DEFAULT_CATALOGUE, read_catalogue

ROOT = Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs" / "correcting-a-layout.md").read_text(encoding="utf-8")
BLOCK = re.compile(
    r"(?:^<!-- (?P<mark>[^\n]+) -->\n)?^```(?P<language>\w+)\n(?P<text>.*?)^```$", re.MULTILINE | re.DOTALL
)


def marked(purpose: str) -> dict[str, str]:
    """The files that the page shows for a purpose, by path."""
    marks = ((str(block["mark"]).partition(": "), block["text"]) for block in BLOCK.finditer(PAGE))
    return {path: text for (kind, _, path), text in marks if kind == purpose}


def sessions() -> Iterator[tuple[str, str]]:
    """Each command line of the page with the output that the page promises ("" if it shows none)."""
    blocks = [(block["language"], block["text"]) for block in BLOCK.finditer(PAGE)]
    for (language, text), following in zip(blocks, [*blocks[1:], ("", "")], strict=True):
        if language == "sh":
            yield text.strip(), following[1] if following[0] == "text" else ""


GENERATOR_SESSIONS = [each for each in sessions() if each[0].startswith("python3 -m generator")]


@pytest.fixture
def project(tmp_path: Path) -> Path:
    """The project's root as the page sees it, with the reader's own files added."""
    for entry in ("catalogue", "generator", "examples"):
        (tmp_path / entry).symlink_to(ROOT / entry)
    for path, text in marked("wrong").items():
        (tmp_path / path).parent.mkdir(exist_ok=True)
        (tmp_path / path).write_text(text, encoding="utf-8")
    return tmp_path


def run(command: str, folder: Path) -> subprocess.CompletedProcess[str]:
    pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT}
    return subprocess.run(command, shell=True, cwd=folder, **pipes, text=True, timeout=60)


@pytest.mark.parametrize(("command", "promised"), GENERATOR_SESSIONS)
def test_the_generator_answers_as_the_page_promises(command: str, promised: str, project: Path) -> None:
    done = run(command, project)
    flags = doctest.ELLIPSIS | doctest.NORMALIZE_WHITESPACE
    assert doctest.OutputChecker().check_output(promised or "...", done.stdout, flags), done.stdout
    assert done.returncode == (1 if "our-machine" in command else 0), done.stdout


def test_the_page_shows_the_files_as_they_are() -> None:
    shown = marked("file")
    assert {ROOT / path for path in shown} == set((ROOT / "examples" / "overlay").iterdir())
    for path, text in shown.items():
        assert text == (ROOT / path).read_text(encoding="utf-8"), path


def test_the_captured_payload_reads_as_the_page_says(project: Path) -> None:
    shown = re.search(r"\| response \| `([0-9A-F ]+)` \|", PAGE)
    assert shown, "the page shows no captured response"
    script = "examples/overlay/read_capture.py"
    told = re.search(
        r'captured_response = bytes.fromhex\("(.+)"\)', (ROOT / script).read_text(encoding="utf-8")
    )
    assert told and bytes.fromhex(told[1]) == bytes.fromhex(shown[1])
    (promised,) = (output for command, output in sessions() if command.endswith(script))
    corrected = {"CommandError": 0, "DivisionNumber": 2, "EjectorRateLimit": 3600, "LimitReached": 1}
    assert corrected.items() <= json.loads(promised.splitlines()[0]).items()
    for overlay, standing, limit, left_over in (
        ("", "assumed", 512, 4),
        ("--overlay examples/overlay", "site-confirmed", 3600, 0),
    ):
        assert run(f"python3 -m generator --json out.json {overlay}", project).returncode == 0
        response = catalogues.load(project / "out.json").named("GetEjectorRateLimit").response
        assert response and response.standing == standing
        values, more = coder.decode(response.fields, bytes.fromhex(shown[1]))
        assert (values["EjectorRateLimit"], more) == (limit, left_over)
    assert response.confirmed_by.startswith("Example Sorter 4, software 7.2.1") and values == corrected


def status_page(*overlays: Path) -> str:
    catalogue, findings = read_catalogue(DEFAULT_CATALOGUE, list(overlays))
    assert not findings
    return emit_status.emit(catalogue)


def test_the_committed_pages_are_what_the_catalogue_says() -> None:
    catalogue, _ = read_catalogue(DEFAULT_CATALOGUE)
    for option, name, text in (
        ("--status", "layout-status.md", emit_status.emit(catalogue)),
        ("--effects", "command-effects.md", emit_effects.emit(catalogue)),
    ):
        committed = (ROOT / "docs" / name).read_text(encoding="utf-8")
        assert committed == text, f"run: python3 -m generator {option} docs/{name}"


@pytest.mark.parametrize("page", [emit_status.HEAD, emit_effects.HEAD])
def test_the_generated_pages_show_what_runs(
    page: str, project: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    run("python3 -m generator --json out.json", project)
    monkeypatch.setenv(catalogues.PATH_VARIABLE, str(project / "out.json"))
    (shown,) = (block["text"] for block in BLOCK.finditer(page) if block["language"] == "python")
    exec(shown, {})


def test_an_overlay_shows_in_the_status() -> None:
    corrected = status_page(ROOT / "examples" / "overlay")
    changed = set(corrected.splitlines()) - set(status_page().splitlines())
    assert "| 187 | GetEjectorRateLimit | site-confirmed | site-confirmed | - | site-confirmed |" in changed
    who = "confirmed by Example Sorter 4, software 7.2.1, 2026-11-20, Jo Doe"
    told = f"- GetEjectorRateLimit, request and response and error rows: {who}"
    assert any(line.startswith(told) for line in changed)
