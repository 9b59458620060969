"""The simulator as a process that a test starts, watches and stops, without a sleep anywhere."""

from __future__ import annotations

import contextlib
import json
import os
import queue
import re
import subprocess
import sys
import threading
import time
from collections.abc import Mapping, Sequence
from pathlib import Path
from types import TracebackType
from typing import Any, Final

Event = Mapping[str, Any]

_LISTENING: Final = re.compile(r"Listening on (\S+):(\d+)$")
_PACKAGE_PARENT: Final = Path(__file__).resolve().parents[2]


class SimulatorFailed(Exception):
    """The simulator did not start, or ended, or did not tell the event that was waited for."""


class SimulatorProcess:
    """Runs ``python3 -m vorlinkit.simulator`` on a free port for the length of a ``with`` block.

    Options are those of the command line, each a word of its own. ``rules`` are rules for misbehaviour::

        with SimulatorProcess(rules=["command=11 request=2 delay=500"]) as simulator:
            ...connect to simulator.host, simulator.port...
            simulator.wait_for("request", command=11)

    Every event that the simulator tells is kept in ``events``. ``wait_for`` waits for one; ``control`` sends
    a line that drives it (a rule, a notification, the end of a connection). Safe to use from one thread at a
    time.
    """

    def __init__(
        self,
        *options: str,
        rules: Sequence[str] = (),
        catalogue: str | os.PathLike[str] | None = None,
        python: str = sys.executable,
        timeout: float = 10.0,
    ) -> None:
        words = [python, "-m", "vorlinkit.simulator", "--port", "0", "--control", *options]
        for rule in rules:
            words += ["--rule", rule]
        if catalogue is not None:
            words += ["--catalogue", os.fspath(catalogue)]
        self._words = words
        self._timeout = timeout
        self._process: subprocess.Popen[str] | None = None
        self._lines: queue.Queue[str | None] = queue.Queue()
        self._seen = 0
        self.host = ""
        self.port = 0
        self.events: list[Event] = []
        self.output: list[str] = []
        """The lines that are no events, such as the words that it starts with."""

    def __enter__(self) -> SimulatorProcess:
        paths = [str(_PACKAGE_PARENT), os.environ.get("PYTHONPATH", "")]
        environment = {**os.environ, "PYTHONPATH": os.pathsep.join(path for path in paths if path)}
        self._process = subprocess.Popen(
            self._words,
            env=environment,
            text=True,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        threading.Thread(target=self._read, args=(self._process,), daemon=True).start()
        deadline = time.monotonic() + self._timeout
        try:
            while not self.port:
                self._take_line(deadline, "to listen")
        except SimulatorFailed:
            self.stop()
            raise
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.stop()

    @property
    def returncode(self) -> int | None:
        """The exit code, None while it runs."""
        return None if self._process is None else self._process.poll()

    @property
    def pid(self) -> int:
        """The process id, for tests that send signals."""
        if self._process is None:
            raise SimulatorFailed("the simulator was not started")
        return self._process.pid

    def wait_for(self, event: str, timeout: float | None = None, **fields: Any) -> Event:
        """The next event of this kind with these fields; each event is met once.

        Raises SimulatorFailed with everything seen so far when it does not come in time.
        """
        deadline = time.monotonic() + (self._timeout if timeout is None else timeout)
        wanted = {"event": event, **fields}
        while True:
            while self._seen < len(self.events):
                candidate = self.events[self._seen]
                self._seen += 1
                if all(candidate.get(key) == value for key, value in wanted.items()):
                    return candidate
            self._take_line(deadline, f"to tell {wanted}")

    def control(self, line: str) -> None:
        """Drive the simulator, for instance ``notify GetMotorPosition count=10``; returns when it was carried
        out.
        """
        process = self._process
        if process is None or process.stdin is None:
            raise SimulatorFailed("the simulator was not started")
        process.stdin.write(line + "\n")
        process.stdin.flush()
        deadline = time.monotonic() + self._timeout
        at = len(self.events)
        while True:
            for told in self.events[at:]:
                if told.get("line") == line.strip() and told["event"] == "done":
                    return
                if told.get("line") == line.strip() and told["event"] == "refused":
                    raise SimulatorFailed(f"the simulator refused {line!r}: {told.get('reason')}")
            at = len(self.events)
            self._take_line(deadline, f"to carry out {line!r}")

    def set(self, command: str, /, **fields: Any) -> None:
        """Have the answers of a command hold these values from now on, and tell its subscribers.

        Fields of the request name the object, the others are those of the answer or the notification; keys of the
        protocol or attribute names, lists as lists of dicts, blobs as bytes. For instance
        ``set("GetFeedRate", FeedConfigurerID="F1", FeedRate=100)``. Raises SimulatorFailed with the reason when a
        field does not exist or does not take its value.
        """
        self.control(
            " ".join([f"set {command}", *(f"{key}={_word(value)}" for key, value in fields.items())])
        )

    def log(self, lines: int = 40) -> str:
        """The last of what the simulator told until now, to be read by people."""
        while True:
            try:
                line = self._lines.get_nowait()
            except queue.Empty:
                break
            self._keep(line)
            if line is None:
                break
        return "\n".join([*self.output, *map(in_words, self.events)][-lines:])

    def stop(self) -> None:
        """Have it stop in good order and wait for its end; kills it only if it does not."""
        process = self._process
        if process is None:
            return
        if process.poll() is None:
            process.terminate()
        try:
            process.wait(self._timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            raise SimulatorFailed("the simulator did not stop by itself\n" + self._so_far()) from None
        finally:
            if process.stdin is not None:
                with contextlib.suppress(OSError):  # what was still to be written has nobody to read it
                    process.stdin.close()

    def _read(self, process: subprocess.Popen[str]) -> None:
        assert process.stdout is not None
        for line in process.stdout:
            self._lines.put(line.rstrip("\n"))
        process.stdout.close()
        self._lines.put(None)

    def _take_line(self, deadline: float, purpose: str) -> None:
        try:
            line = self._lines.get(timeout=max(0.0, deadline - time.monotonic()))
        except queue.Empty:
            raise SimulatorFailed(f"waited too long for the simulator {purpose}\n" + self._so_far()) from None
        self._keep(line)
        if line is None:
            raise SimulatorFailed(f"the simulator ended, and was expected {purpose}\n" + self._so_far())

    def _keep(self, line: str | None) -> None:
        """Put a line where it belongs; None says that there are no more."""
        if line is None:
            self._lines.put(None)
            return
        if line.startswith("{"):
            self.events.append(json.loads(line))
            return
        self.output.append(line)
        match = _LISTENING.match(line)
        if match is not None:
            self.host, self.port = match[1], int(match[2])

    def _so_far(self) -> str:
        return "\n".join([*self.output, *map(in_words, self.events)])


def in_words(event: Event) -> str:
    """An event as a line for people."""
    told = dict(event)
    kind, connection = told.pop("event"), told.pop("connection", None)
    place = f"#{connection} " if connection is not None else ""
    if kind != "request":
        return f"{place}{kind} " + " ".join(f"{key}={value}" for key, value in told.items())
    line = f"{place}asks {told['name'] or told['command']} {told['values']}"
    notes = [f"client id {told['client']}"]
    notes += ["has control"] if told["control"] else []
    notes += [] if told["carried_out"] else ["not carried out"]
    notes += [f"CommandError {told['command_error']}"] if told["command_error"] else []
    return f"{line.rstrip()} ({', '.join(notes)})"


def _word(value: Any) -> str:
    if isinstance(value, (bytes, bytearray)):
        return f'"hex:{value.hex()}"'
    return json.dumps(value, default=_listed)


def _listed(value: Any) -> Any:
    """What JSON does not know inside a list: a blob, or any iterable."""
    return f"hex:{value.hex()}" if isinstance(value, (bytes, bytearray)) else list(value)
