"""Builds the project as a part of another one, which must notice no more of it than its two libraries."""

import re
from pathlib import Path

import pytest
from conftest import CMAKE, ROOT, assert_runs, configure, run

# The padding that hosts may want to be warned of is in our headers and sources, too.
STRICT = "-Wall -Wextra -Wconversion -Wpadded -Werror"
# What a project with one program has in its build folder, whoever its guests are.
OF_THE_HOST = (
    r"CMakeFiles/.*|CMakeCache\.txt|cmake_install\.cmake|build\.ninja|\.ninja_(deps|log)|first_session"
)
CACHED_BY_RIGHT = (
    r"(CMAKE|_?Python|FIND_PACKAGE|FETCHCONTENT|HOST|VORLINKIT)_.*|(host|vorlinkit|fmt)_[A-Z_]+|VORLINKIT"
)


def configure_host(build: Path, *options: str) -> None:
    warnings = "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"
    configure("guest", build, STRICT, f"-DVORLINKIT={ROOT}", warnings, *options)


def sources() -> set[Path]:
    left_out = {"build", ".git", "__pycache__", ".mypy_cache", ".ruff_cache"}
    return {path for path in ROOT.rglob("*") if not left_out & set(path.relative_to(ROOT).parts)}


def strangers(build: Path, guest: str) -> list[str]:
    """Files of the build folder that neither the host has made nor the guest in its own folder."""
    files = (str(path.relative_to(build)) for path in build.rglob("*") if path.is_file())
    return [file for file in files if not re.fullmatch(f"{OF_THE_HOST}|{guest}/.*", file)]


def cached(build: Path) -> set[str]:
    lines = (build / "CMakeCache.txt").read_text(encoding="utf-8").splitlines()
    return {found[1] for line in lines if (found := re.match(r"([\w.-]+)(?:-ADVANCED)?:\w+=", line))}


def test_a_host_builds_only_the_libraries(tmp_path: Path) -> None:
    before = sources()
    configure_host(tmp_path)
    run(CMAKE, "--build", tmp_path)
    assert_runs(tmp_path / "first_session")
    assert strangers(tmp_path, "guest") == []
    assert sources() == before
    built = [path.stem for path in (tmp_path / "guest").rglob("*") if path.suffix in {".a", ".so"}]
    assert sorted(built) == ["libvorlinkit", "libvorlinkit_commands"]


@pytest.mark.parametrize("fetched", [False, True])
def test_a_host_sees_no_test_option_or_install_rule(tmp_path: Path, fetched: bool) -> None:
    configure_host(tmp_path, f"-DHOST_FETCHES={fetched}")
    assert strangers(tmp_path, "_deps" if fetched else "guest") == []
    assert [name for name in cached(tmp_path) if not re.fullmatch(CACHED_BY_RIGHT, name)] == []
    targets = run(CMAKE, "--build", tmp_path, "--", "-t", "targets", "all")
    assert re.search(r"^\S*libvorlinkit_commands\.a: ", targets, re.MULTILINE)
    assert not re.search(r"gtest|gmock|_tests?\b|every_kind|vorlinkit_python|samples", targets)
    run(CMAKE, "--install", tmp_path, "--prefix", tmp_path / "prefix")
    assert not list((tmp_path / "prefix").rglob("*"))
