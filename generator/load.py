"""Finds and reads the files: the catalogue folder, its index, and overlay folders."""

from __future__ import annotations

import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .model import Finding

INDEX = "index.toml"


@dataclass(frozen=True)
class Document:
    """One TOML file as read. `layer` is 0 for the catalogue, 1, 2, ... for the overlays in their order."""

    file: str
    family: str
    layer: int
    data: dict[str, Any]


def read(path: Path, layer: int, findings: list[Finding]) -> Document | None:
    try:
        data = tomllib.loads(path.read_text(encoding="utf-8"))
    except (OSError, UnicodeDecodeError, tomllib.TOMLDecodeError) as problem:
        findings.append(Finding(str(path), f"cannot be read: {problem}"))
        return None
    return Document(str(path), path.stem, layer, data)


def family_files(folder: Path, findings: list[Finding]) -> list[Path]:
    if not folder.is_dir():
        findings.append(Finding(str(folder), "is not a folder"))
        return []
    return sorted(folder.glob("*.toml"))


def documents(
    folder: Path, overlays: list[Path], only: list[Path], findings: list[Finding]
) -> tuple[Document | None, list[Document]]:
    """The index and the family documents. `only` names single files to read instead of the whole folder."""
    index = read(folder / INDEX, 0, findings)
    layers = [only or [path for path in family_files(folder, findings) if path.name != INDEX]]
    layers += [family_files(overlay, findings) for overlay in overlays]
    for path in (path for files in layers[1:] for path in files if path.name == INDEX):
        findings.append(
            Finding(str(path), "the list of commands is the catalogue's; give the file another name")
        )
    found = [read(path, layer, findings) for layer, paths in enumerate(layers) for path in paths]
    return index, [document for document in found if document]
