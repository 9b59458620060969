"""A program that reads and sets two feeders, while the machine goes wrong at each of its requests in each of many ways.

However it ends: every value that it read is the one that the machine held for that feeder, nothing was changed without
exclusive control, every call ended, and where the machine goes on, so does the client.
"""

from __future__ import annotations

import asyncio
import json
import queue
import time
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from typing import Any

import pytest
import vorlinkit
import vorlinkit.aio
from vorlinkit.simulator import SimulatorProcess

Step = tuple[Any, ...]

HELD = {"F1": 11, "F2": 21}
PROGRAM: Sequence[Step] = (
    ("read", "F1"),
    ("read", "F2"),
    ("subscribe", "F1"),
    ("take",),
    ("set", "F1", 12),
    ("read", "F2"),
    ("read", "F1"),
    ("set", "F2", 22),
    ("read", "F2"),
    ("give back",),
    ("read", "F1"),
    ("cancel",),
)
REQUESTS = 1 + len(PROGRAM)  # the first one asks for the client id
TIMEOUT, LATE = 0.4, 550  # seconds, milliseconds
RECOVERY, LONGEST_CALL = 10.0, 10.0  # seconds

HARMLESS = (
    "delay=20",
    "duplicate split=1000",
    "duplicate=3 split=1000",
    "split=1",
    "minor_error=UnknownRequestVersion",
)
LOST = ("no_answer", "no_answer not_carried_out", f"delay={LATE}", "wrong_command_id")
ENDED = ("reset", "reset not_carried_out", "reset=after", "close=middle", "half_close=after", "restart=30")
REFUSED = ("major_error=ControlBlocked", "command_error=1", "restart=30 not_carried_out")
SPOILT = ("junk", "short_payload", "freeze", "take_control")
RULES = [
    f"request={request} {fault}"
    for fault in (*HARMLESS, *LOST, *ENDED, *REFUSED, *SPOILT)
    for request in range(1, REQUESTS + 1)
]
RULES += [f"request={request} duplicate later=20" for request in (1, 5, 6, 9, 11)]
"""Nobody could tell a duplicate that comes while another read waits from the answer to that one."""
WORKERS = 8


@dataclass
class Taken:
    """One step of the program: what came of it, how long it took, and where it stands among the simulator's events."""

    step: Step
    begin: int
    result: Any = None
    error: BaseException | None = None
    seconds: float = 0.0
    end: int = 0


@dataclass
class Run:
    """One program under one rule."""

    simulator: SimulatorProcess
    rule: str
    steps: list[Taken] = field(default_factory=list)
    complaints: list[str] = field(default_factory=list)

    def prepare(self) -> None:
        for line in ("clear-rules", "release-control"):
            self.simulator.control(line)
        for feeder, rate in HELD.items():
            self.simulator.set("GetFeedRate", FeedConfigurerID=feeder, FeedRate=rate)
        if self.rule:
            self.simulator.control(f"rule {self.rule}")

    def program(self) -> Iterator[Step]:
        """The steps, and behind them reads until one succeeds."""
        yield from PROGRAM
        self.simulator.control("clear-rules")
        until = time.monotonic() + RECOVERY
        while self.steps[-1].step != ("read", "F2") or self.steps[-1].error is not None:
            if time.monotonic() > until:
                self.complaints.append("it does not come back")
                return
            yield ("read", "F2")
            time.sleep(0.02)  # a program that polls

    def begun(self, step: Step) -> Taken:
        self.steps.append(Taken(step, self.mark(), seconds=-time.monotonic()))
        return self.steps[-1]

    def ended(self, error: BaseException | None = None) -> None:
        taken = self.steps[-1]
        taken.seconds += time.monotonic()
        taken.error, taken.end = error, self.mark()

    def mark(self) -> int:
        """How many events there are of what happened until now."""
        self.simulator.control("mark here")
        return len(self.simulator.events)

    def judge(self, first: int) -> None:
        """Hold what the program saw against what the simulator tells that it did."""
        held, reads = dict(HELD), {}
        for at, event in enumerate(self.simulator.events[first:], first):
            if event["event"] != "request" or not event["carried_out"]:
                continue
            if event["changes"] and not event["control"]:
                self.complaints.append(f"{event['name']} {event['values']} was carried out without control")
            asked = json.loads(event["values"] or "{}")
            if event["name"] == "SetFeedRate":
                held[asked["FeedConfigurerID"]] = asked["FeedRate"]
            elif event["name"] == "GetFeedRate":
                reads[at] = asked["FeedConfigurerID"], held[asked["FeedConfigurerID"]]
        for taken in self.steps:
            self._judge_step(taken, [reads[at] for at in range(taken.begin, taken.end) if at in reads])

    def _judge_step(self, taken: Taken, reads: Sequence[tuple[str, int]]) -> None:
        if taken.error is not None and not isinstance(taken.error, vorlinkit.VorlinError):
            self.complaints.append(f"{taken.step} raised {taken.error!r}")
        if taken.error is not None and any(self.rule.endswith(f" {one}") for one in (*HARMLESS, "")):
            self.complaints.append(f"{taken.step} raised {taken.error!r}, and nothing is wrong")
        if taken.seconds > LONGEST_CALL:
            self.complaints.append(f"{taken.step} took {taken.seconds:.1f} s")
        if taken.step[0] == "read" and taken.error is None:
            true = [rate for feeder, rate in reads if feeder == taken.step[1]]
            if true[-1:] != [taken.result.feed_rate]:
                self.complaints.append(f"{taken.step} gave {taken.result.feed_rate}, the machine held {true}")


class Face:
    """What a program does with a machine object of either kind; results of the asynchronous one are awaited."""

    def __init__(self, machine: Any, enter: str, leave: str) -> None:
        self.machine, self._enter, self._leave = machine, enter, leave
        self._control: Any = None
        self._subscription: Any = None

    def do(self, step: Step) -> Any:
        kind, *words = step
        if kind == "read":
            return self.machine.get_feed_rate(*words)
        if kind == "set":
            return self.machine.set_feed_rate(*words)
        if kind == "subscribe":
            self._subscription = self.machine.subscribe.get_feed_rate(*words)
            return getattr(self._subscription, self._enter)()
        if kind == "take":
            self._control = self.machine.exclusive_control()
            return getattr(self._control, self._enter)()
        held = self._control if kind == "give back" else self._subscription
        return getattr(held, self._leave)(None, None, None)

    def skips(self, step: Step, steps: Sequence[Taken]) -> bool:
        """Whether this step belongs to a block that was not entered."""
        needs = {"set": "take", "give back": "take", "cancel": "subscribe"}.get(step[0])
        return any(taken.step[0] == needs and taken.error is not None for taken in steps)


def blocking(run: Run) -> None:
    simulator = run.simulator
    run.begun(("connect",))
    try:
        machine = vorlinkit.connect(simulator.host, simulator.port, timeout=TIMEOUT, reconnect_delay=0.01)
    except vorlinkit.VorlinError as error:
        run.ended(error)
        return
    run.ended()
    with machine:
        face = Face(machine, "__enter__", "__exit__")
        for step in run.program():
            if face.skips(step, run.steps):
                continue
            taken = run.begun(step)
            try:
                taken.result = face.do(step)
                run.ended()
            except Exception as error:
                run.ended(error)


def asynchronous(run: Run) -> None:
    asyncio.run(_asynchronous(run))


async def _asynchronous(run: Run) -> None:
    simulator = run.simulator
    run.begun(("connect",))
    try:
        machine = await vorlinkit.aio.connect(
            simulator.host, simulator.port, timeout=TIMEOUT, reconnect_delay=0.01
        )
    except vorlinkit.VorlinError as error:
        run.ended(error)
        return
    run.ended()
    async with machine:
        face = Face(machine, "__aenter__", "__aexit__")
        for step in run.program():
            if face.skips(step, run.steps):
                continue
            taken = run.begun(step)
            try:
                taken.result = await face.do(step)
                run.ended()
            except Exception as error:
                run.ended(error)


def work(rules: queue.SimpleQueue[str], program: Callable[[Run], None]) -> list[Run]:
    """Programs under one rule after the other, with one simulator, until there are no more rules."""
    runs = []
    with SimulatorProcess("--strict-client-id") as simulator:
        while True:
            try:
                rule = rules.get_nowait()
            except queue.Empty:
                return runs
            runs.append(run := Run(simulator, rule))
            first = run.mark()
            run.prepare()
            program(run)
            run.mark()
            events = simulator.events[first:]
            for number in [one["connection"] for one in events if one["event"] == "accepted"]:
                if not any(one["event"] == "closed" and one["connection"] == number for one in events):
                    simulator.wait_for("closed", connection=number)
            run.judge(first)


def all_runs(rules: Sequence[str], program: Callable[[Run], None]) -> list[Run]:
    waiting: queue.SimpleQueue[str] = queue.SimpleQueue()
    for rule in rules:
        waiting.put(rule)
    with ThreadPoolExecutor(WORKERS) as pool:
        working = [pool.submit(work, waiting, program) for _ in range(WORKERS)]
        return [run for one in working for run in one.result()]


def test_no_setting_follows_the_loss_of_control() -> None:
    """Who lost control is told ahead of the answer to the first setting; the second one follows at once."""
    simulator = SimulatorProcess(rules=["command=SetFeedRate take_control"])
    with simulator, vorlinkit.connect(simulator.host, simulator.port) as machine:
        for _ in range(50):
            with machine.exclusive_control(force=True):
                machine.set_feed_rate("F1", 1)
                with pytest.raises(vorlinkit.ControlLost):
                    machine.set_feed_rate("F2", 2)


@pytest.mark.parametrize("program", [blocking, asynchronous])
def test_no_wrong_value_no_setting_without_control_no_call_without_an_end(
    program: Callable[[Run], None],
) -> None:
    rules = ["", *RULES]
    assert len(rules) > 200
    runs = all_runs(rules, program)
    assert len(runs) == len(rules)
    assert {run.rule: run.complaints for run in runs if run.complaints} == {}
