"""Reads the command catalogue, checks it, and writes what follows from it.

For authors of catalogue files, from the project root:

  python3 -m generator --check --partial catalogue/devices.toml  one file (or several) while others are
                                                                  still missing; prints every finding
  python3 -m generator --check                                    the whole catalogue against its index
  python3 -m generator --check --overlay ~/our-machine            the catalogue with a folder of corrections
  python3 -m generator --report                                   totals and standings per family

The exit code is 1 if anything is wrong, and nothing is written then.
"""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

from . import (
    emit_bindings,
    emit_cpp,
    emit_effects,
    emit_json,
    emit_methods,
    emit_status,
    emit_stub,
    load,
    notation,
)
from .model import Catalogue, Finding, each_once
from .report import report
from .validate import validate

PROJECT = Path(__file__).resolve().parent.parent
DEFAULT_CATALOGUE = PROJECT / "catalogue"
SESSION_STUB = PROJECT / "python" / "extension" / "session.pyi"


def arguments(argv: list[str] | None = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python3 -m generator", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument(
        "files", nargs="*", type=Path, help="family files to read instead of the whole catalogue"
    )
    parser.add_argument("--catalogue", type=Path, default=DEFAULT_CATALOGUE, help="the catalogue folder")
    parser.add_argument(
        "--overlay",
        type=Path,
        action="append",
        default=[],
        metavar="DIR",
        help="a folder whose definitions replace those of the same command; may be repeated, the last wins",
    )
    parser.add_argument(
        "--partial", action="store_true", help="do not ask for commands and totals of absent families"
    )
    parser.add_argument("--check", action="store_true", help="check only, and say how much was read")
    parser.add_argument("--report", action="store_true", help="print totals and standings per family")
    parser.add_argument("--cpp", type=Path, metavar="DIR", help="write the C++ below this folder")
    parser.add_argument(
        "--bindings", type=Path, metavar="DIR", help="write the blocks of the Python module below this folder"
    )
    parser.add_argument(
        "--stub", type=Path, metavar="FILE", help="write the typing stub of the Python module"
    )
    parser.add_argument(
        "--session-stub",
        type=Path,
        metavar="FILE",
        default=SESSION_STUB,
        help="the hand-written part of the stub",
    )
    parser.add_argument("--json", type=Path, metavar="FILE", help="write the catalogue as JSON")
    parser.add_argument(
        "--package",
        type=Path,
        metavar="DIR",
        help="write the generated part of the Python package below this folder",
    )
    parser.add_argument(
        "--status", type=Path, metavar="FILE", help="write the page that says how sure each layout is"
    )
    parser.add_argument(
        "--effects", type=Path, metavar="FILE", help="write the page that says what each command does"
    )
    return parser.parse_args(argv)


def read_catalogue(
    folder: Path, overlays: list[Path] | None = None, only: list[Path] | None = None, partial: bool = False
) -> tuple[Catalogue, list[Finding]]:
    """The catalogue and everything that is wrong with it."""
    findings: list[Finding] = []
    index_document, documents = load.documents(folder, overlays or [], only or [], findings)
    index = notation.read_index(index_document, findings)
    catalogue = Catalogue(notation.read_families(documents, findings))
    return catalogue, each_once(findings + validate(catalogue, index, partial))


def write(path: Path, text: str) -> None:
    """Writes a file only when that changes it, so that nothing is rebuilt for nothing."""
    if path.exists() and path.read_bytes() == text.encode():
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text.encode())


def main(argv: list[str] | None = None) -> int:
    options = arguments(argv)
    partial = options.partial or bool(options.files)
    catalogue, findings = read_catalogue(options.catalogue, options.overlay, options.files, partial)
    for finding in findings:
        print(finding, file=sys.stderr)
    if findings:
        print(f"{len(findings)} finding(s); nothing was written", file=sys.stderr)
        return 1
    if options.cpp:
        for path, text in emit_cpp.emit(catalogue).items():
            write(options.cpp / path, text)
    if options.bindings:
        for path, text in emit_bindings.emit(catalogue).items():
            write(options.bindings / path, text)
    if options.stub:
        write(options.stub, emit_stub.emit(catalogue, options.session_stub.read_text(encoding="utf-8")))
    if options.json:
        write(options.json, emit_json.emit(catalogue))
    if options.package:
        for path, text in emit_methods.emit(catalogue).items():
            write(options.package / path, text)
    if options.status:
        write(options.status, emit_status.emit(catalogue))
    if options.effects:
        write(options.effects, emit_effects.emit(catalogue))
    if options.report:
        print(report(catalogue), end="")
    elif options.check:
        records = sum(1 for command in catalogue.commands() for _ in command.records())
        print(f"ok: {len(list(catalogue.commands()))} commands, {records} records")
    return 0


if __name__ == "__main__":
    sys.exit(main())
