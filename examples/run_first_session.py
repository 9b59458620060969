"""Starts the machine simulator as a process of its own and runs examples/first_session.py against it.

    python3 examples/run_first_session.py

needs nothing but a finished build. The simulator gets a free port and a clock that stands still, so that the
output is the same every time, and drops the connection once, at the first NoOpCommand.
"""

import sys
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parent
sys.path.append(str(EXAMPLES))

try:
    import vorlinkit_python  # noqa: F401  (from PYTHONPATH)
except ImportError:
    sys.path.insert(0, str(EXAMPLES.parent / "build" / "release" / "python"))

import first_session  # noqa: E402
from vorlinkit.simulator import SimulatorProcess  # noqa: E402

if __name__ == "__main__":
    with SimulatorProcess(
        "--clock", "1767225600", rules=["command=NoOpCommand request=1 reset"]
    ) as simulator:
        print("\n".join(line for line in simulator.output if not line.startswith("Listening")))
        first_session.main(simulator.host, simulator.port, move_motor=True)
