"""Every misbehaviour of the simulator, met by a session: what the caller gets, and that it goes on."""

from __future__ import annotations

import queue
from collections.abc import Iterator
from contextlib import contextmanager

import pytest
import vorlinkit_python as vorlin
from fake_server import config_for
from vorlinkit.simulator import SimulatorProcess

CLIENT_ID = 1
SUPPORTED_COMMANDS = 6
MACHINE_INFO = 11
MOTOR_POSITION = 158
SHORT = 300  # milliseconds: a time-out for answers that never come
WAIT = 10  # seconds in which an awaited event has to come

INFO = b"\x01\x021.0\x00SIM-0001\x00VorlinKit simulator\x00"
ANSWERED = (INFO, "")


@contextmanager
def session_with(
    *rules: str, timeout: int = 10000, attempts: int = 1, reconnect: bool = False
) -> Iterator[tuple[vorlin.VorlinSession, SimulatorProcess, queue.Queue[tuple[bool, str]]]]:
    """A connected session with a simulator that follows these rules, and the session's states."""
    with SimulatorProcess(rules=rules) as simulator:
        settings = {"request_timeout": timeout, "request_attempts": attempts, "reconnect_delay": 1}
        session = vorlin.VorlinSession(config_for(simulator.port, auto_reconnect=reconnect, **settings))
        states: queue.Queue[tuple[bool, str]] = queue.Queue()
        session.on_connection_state_changed(lambda connected, reason: states.put((connected, reason)))
        assert session.connect() == (True, "")
        assert states.get(timeout=WAIT)[0] is True
        try:
            yield session, simulator, states
        finally:
            session.disconnect()


def timed_out(command_id: int, attempts: int = 1) -> tuple[None, str]:
    return None, f"Request timeout for commandId={command_id} after {attempts} attempt(s)"


BAD_ID = "Invalid protocol ID (expected 'VR')"
BAD_TYPE = "Unknown message type"
REFUSED = (
    "VORLIN protocol error (majorError): HeaderLengthIncorrect (0x00000001) | "
    "ExclusiveControlRequired (0x00000020)"
)


@pytest.mark.parametrize(
    ("rule", "attempts", "outcome"),
    [
        ("command=11 delay=50", 1, ANSWERED),
        ("command=11 duplicate=3", 1, ANSWERED),
        ("minor_error=UnknownRequestVersion", 1, ANSWERED),
        ("command=11 from=1 to=2 no_answer", 3, ANSWERED),
        ("command=11 short_payload=3", 1, (INFO[:-3], "")),
        *((f"split{size}", 1, ANSWERED) for size in ("", "=1", "=2", "=3", "=19", "=21")),
        ("command=11 no_answer", 2, timed_out(MACHINE_INFO, 2)),
        ("command=11 wrong_command_id", 2, timed_out(MACHINE_INFO, 2)),
        ("command=11 corrupt=version", 2, timed_out(MACHINE_INFO, 2)),
        ("command=11 corrupt=header_length", 2, timed_out(MACHINE_INFO, 2)),
        ("command=11 major_error=0x21", 1, (None, REFUSED)),
        ("command=11 junk", 1, (None, BAD_ID)),
        ("command=11 corrupt=protocol", 1, (None, BAD_ID)),
        ("command=11 junk=hex:5652010900100000", 1, (None, BAD_TYPE)),
        ("command=11 corrupt=type", 1, (None, BAD_TYPE)),
    ],
)
def test_it_costs_one_request_at_most(rule: str, attempts: int, outcome: tuple[bytes | None, str]) -> None:
    timeout = SHORT if attempts > 1 else 10000
    with session_with(rule, timeout=timeout, attempts=attempts) as (session, simulator, _):
        assert session.send(MACHINE_INFO) == outcome
        for _ in range(attempts):
            simulator.wait_for("request", command=MACHINE_INFO)
        assert session.send(CLIENT_ID) == (b"\x01", "")
        assert len(session.send(SUPPORTED_COMMANDS)[0]) == 2 + 2 * 206
        assert session.is_connected()


def test_notifications_arrive_while_a_request_waits() -> None:
    with session_with("command=11 no_answer", timeout=2000) as (session, simulator, _):
        arrived: queue.Queue[bytes] = queue.Queue()
        session.on_notification(MOTOR_POSITION, arrived.put)
        assert session.send(CLIENT_ID) == (b"\x01", "")
        notify = "notify GetMotorPosition size=4"
        session.on_frame(lambda direction, _: direction == vorlin.Tx and simulator.control(notify))
        assert session.send(MACHINE_INFO) == timed_out(MACHINE_INFO)
        assert arrived.get(timeout=WAIT) == bytes(4)


def test_glued_frames_are_taken_apart_in_order() -> None:
    with session_with("command=158 glued=50") as (session, _, _):
        arrived: list[bytes] = []
        session.on_notification(MOTOR_POSITION, arrived.append)
        motor = b"AD1\x00\x01"
        assert session.send(MOTOR_POSITION, motor + b"\0") == (b"\0\0" + motor + bytes(4), "")
        assert arrived == [motor + bytes(4)] * 50


def test_an_announced_length_that_never_comes_poisons_one_connection_only() -> None:
    rule = "command=11 request=1 announce=100000000"
    with session_with(rule, timeout=SHORT, reconnect=True) as (session, simulator, states):
        assert session.send(MACHINE_INFO) == timed_out(MACHINE_INFO)
        assert session.send(CLIENT_ID) == timed_out(CLIENT_ID)
        simulator.control("close")
        assert states.get(timeout=WAIT)[0] is False
        assert states.get(timeout=WAIT)[0] is True
        assert session.send(MACHINE_INFO) == ANSWERED


ENDS = [
    (how, moment) for how in ("half_close", "close", "reset") for moment in ("instead", "middle", "after")
]


@pytest.mark.parametrize(("how", "moment"), ENDS[:-1])  # a reset may overtake the answer ahead of it
def test_an_end_costs_its_request_and_a_new_connection_serves_the_next(how: str, moment: str) -> None:
    rule = f"command=11 request=1 {how}={moment}"
    with session_with(rule, reconnect=True) as (session, _, states):
        assert session.send(CLIENT_ID) == (b"\x01", "")
        payload, problem = session.send(MACHINE_INFO)
        connected, reason = states.get(timeout=WAIT)
        assert connected is False
        assert (payload, problem) == (ANSWERED if moment == "after" else (None, reason)) and reason
        assert states.get(timeout=WAIT)[0] is True
        assert session.client_id() == 0
        assert session.send(MACHINE_INFO) == ANSWERED


@pytest.mark.parametrize("how", ["close", "reset"])
def test_dropped_on_accept_until_it_is_let_in(how: str) -> None:
    rules = [f"connection={number} drop_on_accept={how}" for number in (1, 2, 3)]
    with SimulatorProcess(rules=rules) as simulator:
        session = vorlin.VorlinSession(config_for(simulator.port, auto_reconnect=True, reconnect_delay=1))
        session.connect()
        simulator.wait_for("accepted", connection=4)
        while session.send(CLIENT_ID) != (b"\x01", ""):
            assert simulator.returncode is None
        session.disconnect()


def test_a_burst_arrives_whole_and_in_order() -> None:
    count = 100_000
    with session_with(f"command=11 burst={count} of=GetMotorPosition size=10") as (session, _, _):
        payloads: queue.Queue[bytes] = queue.Queue()
        session.on_notification(MOTOR_POSITION, payloads.put)
        assert session.send(MACHINE_INFO) == ANSWERED
        for number in range(count):
            payload = payloads.get(timeout=WAIT)
            assert (len(payload), int.from_bytes(payload[:4], "big")) == (10, number)
