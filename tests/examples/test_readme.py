"""What the README shows is what its programs print."""

import re
import shlex
import subprocess
import sys
from pathlib import Path

import pytest
from vorlinkit.cli import main
from vorlinkit.simulator import SimulatorProcess

ROOT = Path(__file__).resolve().parents[2]
README = (ROOT / "README.md").read_text(encoding="utf-8")


def shown_after(mark: str) -> str:
    found = re.search(rf"<!-- {re.escape(mark)} -->\n```\w*\n(.*?)^```$", README, re.MULTILINE | re.DOTALL)
    assert found, f"the README has no block marked {mark!r}"
    return found[1]


def test_the_first_session_prints_what_the_readme_shows() -> None:
    program = ROOT / "examples" / "run_first_session.py"
    done = subprocess.run([sys.executable, program], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == shown_after("output: examples/run_first_session.py")


def test_the_python_lines_of_the_readme_run() -> None:
    """They name the usual port; here the simulator has one of its own."""
    code = shown_after("python: against a simulator")
    program = (
        "from vorlinkit.simulator import SimulatorProcess\n"
        "import sys\n"
        "with SimulatorProcess() as simulator:\n"
        "    code = sys.argv[1].replace('50713', str(simulator.port))\n"
        "    exec(compile(code, 'README.md', 'exec'), {})\n"
    )
    done = subprocess.run([sys.executable, "-c", program, code], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == shown_after("output: against a simulator")


def test_the_typed_lines_of_the_readme_run(capsys: pytest.CaptureFixture[str]) -> None:
    with SimulatorProcess() as simulator:
        code = shown_after("typed: python").replace('"127.0.0.1"', f'"127.0.0.1", {simulator.port}')
        exec(compile(code, "README.md", "exec"), {})
        assert capsys.readouterr().out == "SIM-0001\n"
        for line in shown_after("typed: shell").splitlines():
            command = line.replace("127.0.0.1", f"127.0.0.1:{simulator.port}")
            assert main(shlex.split(command)[1:]) == 0, line
            assert capsys.readouterr().out
