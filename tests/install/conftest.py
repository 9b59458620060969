"""What the tests of an installed or embedded project share: programs that have to succeed, and a host's set-up."""

import os
import subprocess
from pathlib import Path

from vorlinkit.simulator import SimulatorProcess

ROOT = Path(__file__).resolve().parents[2]
CMAKE, CXX, CXXFLAGS = (os.environ[f"VORLINKIT_{name}"] for name in ("CMAKE", "CXX", "CXXFLAGS"))


def run(*words: object, **environment: str) -> str:
    how = {"env": os.environ | environment, "capture_output": True, "text": True, "timeout": 280}
    done = subprocess.run([str(word) for word in words], **how)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def configure(source: str, build: Path, flags: str, *options: str) -> None:
    compiler = f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_CXX_FLAGS={CXXFLAGS} {flags}"
    run(CMAKE, "-S", ROOT / "tests" / "install" / source, "-B", build, "-G", "Ninja", *compiler, *options)


def assert_runs(program: Path) -> None:
    with SimulatorProcess() as simulator:
        assert "VorlinKit simulator" in run(program, simulator.host, simulator.port)
