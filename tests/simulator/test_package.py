"""The companion package as a whole: who may import what, that nothing goes in circles, and its types."""

from __future__ import annotations

import ast
import subprocess
import sys
from collections.abc import Mapping
from graphlib import CycleError, TopologicalSorter
from pathlib import Path

import pytest
import vorlinkit
from conftest import ROOT

WIRE = {"wire", "catalogue"}
MODULE = "vorlinkit_python"
MAY_IMPORT: Mapping[str, set[str] | None] = {
    "": set(),
    **dict.fromkeys(("wire", "catalogue"), WIRE),
    **{part: {part, *WIRE} for part in ("simulator", "capture", "layouts")},
    **dict.fromkeys(("client", "aio", "cli")),
}
"""The parts of the package, and which of its parts each may import; None: all, and the extension module, too."""


def imports(path: str, source: str) -> tuple[str, set[str]]:
    """A module's name and the full names of what it imports, wherever in its text: relative ones resolved, members
    as if they were modules."""
    home = ["vorlinkit", *path.removesuffix(".py").split("/")]
    found = set()
    for node in ast.walk(ast.parse(source)):
        if isinstance(node, ast.Import):
            found |= {one.name for one in node.names}
        elif isinstance(node, ast.ImportFrom):
            base = [*(home[: -node.level] if node.level else []), *filter(None, [node.module])]
            found |= {".".join([*base, one.name]) for one in node.names}
    return ".".join(home).removesuffix(".__init__"), found


def breaches(module: str, imported: set[str]) -> set[str]:
    """What a module imports against the rule."""
    part = ".".join(module.split(".")[1:2])
    if part not in MAY_IMPORT:
        return {f"{part}: no rule says what it may import"}
    allowed, found = MAY_IMPORT[part], set()
    for name in imported:
        top, *rest = name.split(".")
        if top == "vorlinkit":
            fine = allowed is None or (rest or [""])[0] in allowed
        else:
            fine = top in sys.stdlib_module_names or (top == MODULE and allowed is None)
        found |= set() if fine else {name}
    return found


def circle(graph: Mapping[str, set[str]]) -> list[str]:
    """The modules of one circle of imports, if there is one; a name is looked up as a module, then as a member."""
    modules = {name: name for name in graph}
    needs = {
        module: {modules.get(name) or modules.get(name.rpartition(".")[0], module) for name in names}
        - {module}
        for module, names in graph.items()
    }
    try:
        TopologicalSorter(needs).prepare()
    except CycleError as error:
        return list(error.args[1])
    return []


def package() -> dict[str, set[str]]:
    """What every module of the package imports."""
    root = ROOT / "python" / "vorlinkit"
    paths = {path.relative_to(root).as_posix(): path for path in root.rglob("*.py")}
    return dict(imports(name, path.read_text(encoding="utf-8")) for name, path in paths.items())


def test_the_package_keeps_the_rule() -> None:
    found = package()
    assert len(found) > 30
    assert {module: wrong for module, names in found.items() if (wrong := breaches(module, names))} == {}
    assert circle(found) == []


@pytest.mark.parametrize(
    ("path", "source", "wrong"),
    [
        ("wire/coder.py", "from vorlinkit.catalogue import Field\nfrom .records import Record", set()),
        ("wire/coder.py", "from ..simulator import options", {"vorlinkit.simulator.options"}),
        ("catalogue.py", "def f():\n    from .simulator import process", {"vorlinkit.simulator.process"}),
        ("simulator/state/machine.py", "from ...client import tables", {"vorlinkit.client.tables"}),
        ("capture/__init__.py", "if TYPE_CHECKING:\n    import vorlinkit_python", {MODULE}),
        ("layouts/__init__.py", "import numpy, json", {"numpy"}),
        ("cli/__init__.py", "import vorlinkit_python, vorlinkit.client", set()),
        ("news.py", "import json", {"news: no rule says what it may import"}),
    ],
)
def test_a_breach_is_noticed(path: str, source: str, wrong: set[str]) -> None:
    assert breaches(*imports(path, source)) == wrong


def test_a_circle_is_noticed() -> None:
    assert circle({"a": {"b.member"}, "b": {"c"}, "c": set()}) == []
    assert set(circle({"a": {"b.member"}, "b": {"c"}, "c": {"a"}})) == {"a", "b", "c"}


def test_a_strict_type_checker_accepts_the_package(tmp_path: Path) -> None:
    built = Path(vorlinkit.__file__).parent.parent  # with what is generated, and the extension module's stub
    words = [sys.executable, "-m", "mypy", "--strict", "--cache-dir", str(tmp_path), "-p", "vorlinkit"]
    done = subprocess.run(words, cwd=built, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
