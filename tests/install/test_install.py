"""Installs the project, moves the installed tree, and uses it from elsewhere: from C++ by way of CMake and of
pkg-config, and from Python."""

import os
import shlex
import shutil
import sys
from pathlib import Path

import pytest
from conftest import CMAKE, CXX, CXXFLAGS, ROOT, assert_runs, configure, run
from vorlinkit.simulator import SimulatorProcess

BUILD = os.environ["VORLINKIT_BUILD_DIR"]
EXAMPLE = ROOT / "examples" / "first_session.cpp"


@pytest.fixture(scope="module")
def prefix(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """An installed tree that is no longer where it was installed."""
    folder = tmp_path_factory.mktemp("install test")  # with a blank, as people have them
    run(CMAKE, "--install", BUILD, "--prefix", folder / "first")
    return Path(shutil.move(folder / "first", folder / "moved"))


def flags_of(prefix: Path) -> list[str]:
    (found,) = prefix.rglob("vorlinkit.pc")
    return shlex.split(
        run("pkg-config", "--cflags", "--libs", "vorlinkit", PKG_CONFIG_PATH=str(found.parent))
    )


def test_no_installed_file_names_a_place_of_the_build(prefix: Path) -> None:
    texts = [*prefix.rglob("*.cmake"), *prefix.rglob("*.pc"), *prefix.rglob("*.hpp"), *prefix.rglob("*.pyi")]
    assert len(texts) > 20
    for path in texts:
        text = path.read_text(encoding="utf-8")
        for place in (str(ROOT), str(prefix.parent)):
            assert place not in text, f"{path.relative_to(prefix)} names {place}"
    assert not list(prefix.rglob("asio*"))


def test_a_consumer_builds_with_cmake(prefix: Path, tmp_path: Path) -> None:
    configure("consumer", tmp_path, "", f"-DCMAKE_PREFIX_PATH={prefix}", f"-DEXAMPLE={EXAMPLE}")
    run(CMAKE, "--build", tmp_path)
    assert_runs(tmp_path / "first_session")


def test_a_consumer_builds_with_pkg_config_and_without_asio(prefix: Path, tmp_path: Path) -> None:
    flags = flags_of(prefix)
    compiler = [CXX, *shlex.split(CXXFLAGS), "-std=c++23"]
    program = tmp_path / "first_session"
    run(*compiler, EXAMPLE, "-o", program, *flags)
    assert_runs(program)
    headers = run(*compiler, "-M", EXAMPLE, *flags)
    assert "vorlinkit/VorlinSession.hpp" in headers and "vorlinkit/call.hpp" in headers
    assert "asio" not in headers


def test_the_program_in_the_readme_builds_and_runs(prefix: Path, tmp_path: Path) -> None:
    """Against a simulator whose port is put into it."""
    readme = (ROOT / "README.md").read_text(encoding="utf-8")
    code = readme.partition("<!-- cpp: against a simulator -->\n```cpp\n")[2].partition("```")[0]
    source, program = tmp_path / "program.cpp", tmp_path / "program"
    with SimulatorProcess() as simulator:
        host = '.host = "127.0.0.1"'
        assert host in code
        source.write_text(code.replace(host, f"{host}, .port = {simulator.port}"), encoding="utf-8")
        run(CXX, *shlex.split(CXXFLAGS), "-std=c++23", source, "-o", program, *flags_of(prefix))
        assert run(program) == "1 3\n2 5\n"


def test_the_package_alone_is_built_without_a_compiler(tmp_path: Path) -> None:
    build, prefix = tmp_path / "build", tmp_path / "prefix"
    run(CMAKE, "-S", ROOT, "-B", build, "-G", "Ninja", "-DVORLINKIT_PACKAGE_ONLY=ON", CXX="false")
    run(CMAKE, "--build", build)
    run(CMAKE, "--install", build, "--prefix", prefix)
    (package,) = prefix.rglob("site-packages")
    assert not list(prefix.rglob("*.so"))
    assert (package / "vorlinkit_python-stubs" / "__init__.pyi").stat().st_size > 100_000
    program = "import vorlinkit, vorlinkit.client.backend as backend; print(backend.name(), vorlinkit.Machine.__name__)"
    assert run(sys.executable, "-c", program, PYTHONPATH=str(package)) == "python Machine\n"


def test_python_finds_module_and_companion(prefix: Path) -> None:
    modules = list(prefix.rglob("vorlinkit_python.*.so"))
    if not modules:
        pytest.skip("this build has no Python module")
    program = (
        "import vorlinkit_python, vorlinkit.catalogue\n"
        "print(len(vorlinkit.catalogue.layout_status()), vorlinkit_python.__file__)\n"
    )
    count, place = run(sys.executable, "-c", program, PYTHONPATH=str(modules[0].parent)).split(maxsplit=1)
    assert int(count) >= 454
    assert Path(place.strip()) == modules[0]
    assert (modules[0].parent / "vorlinkit_python-stubs" / "__init__.pyi").stat().st_size > 100_000
