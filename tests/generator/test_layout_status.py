"""The page on how sure each layout is follows the catalogue."""

from __future__ import annotations

from pathlib import Path

from generator import emit_status
from generator.__main__ import DEFAULT_CATALOGUE, read_catalogue

ROOT = Path(__file__).resolve().parents[2]


def page(*overlays: Path) -> str:
    catalogue, findings = read_catalogue(DEFAULT_CATALOGUE, list(overlays))
    assert not findings
    return emit_status.emit(catalogue)


def test_the_committed_page_is_what_the_catalogue_says() -> None:
    committed = (ROOT / "docs" / "layout-status.md").read_text(encoding="utf-8")
    assert committed == page(), "run: python3 -m generator --status docs/layout-status.md"


def test_an_overlay_shows_in_the_page() -> None:
    changed = set(page(ROOT / "examples" / "overlay").splitlines()) - set(page().splitlines())
    assert "| 187 | GetEjectorRateLimit | site-confirmed | site-confirmed | - | site-confirmed |" in changed
    who = "confirmed by Example Sorter 4, software 7.2.1, 2026-11-20, Jo Doe"
    told = f"- GetEjectorRateLimit, request and response and error rows: {who}"
    assert any(line.startswith(told) for line in changed)
