"""Every misbehaviour of the simulator, met by a session: what the caller gets, and that it goes on."""

from __future__ import annotations

import queue
from collections.abc import Iterator
from contextlib import contextmanager

import pytest
import vorlinkit_python as vorlin
from vorlinkit.simulator import SimulatorProcess

CLIENT_ID = 1
SERVER_TIME = 10
MACHINE_INFO = 11
SUPPORTED_COMMANDS = 6
MOTOR_POSITION = 158
SHORT = 300
"""A time-out, in milliseconds, for answers that never come."""
WAIT = 10
"""Seconds in which an awaited event has to come."""

INFO = b"\x01\x021.0\x00SIM-0001\x00VorlinKit simulator\x00"
SUBSCRIBE_MOTOR = b"AD1\x00\x01\x01"


@contextmanager
def session_with(
    *rules: str, timeout: int = 10000, attempts: int = 1, reconnect: bool = False
) -> Iterator[tuple[vorlin.VorlinSession, SimulatorProcess, queue.Queue[tuple[bool, str]]]]:
    """A connected session with a simulator that follows these rules, and the session's states."""
    with SimulatorProcess(rules=rules) as simulator:
        config = vorlin.SessionConfig()
        config.host, config.port = simulator.host, simulator.port
        config.request_timeout, config.request_attempts = timeout, attempts
        config.auto_reconnect, config.reconnect_delay = reconnect, 1
        session = vorlin.VorlinSession(config)
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


def test_late_answers_within_the_time_out_are_taken() -> None:
    with session_with("command=11 delay=50") as (session, _, _):
        assert session.send(MACHINE_INFO) == (INFO, "")


def test_notifications_arrive_while_a_request_waits() -> None:
    with session_with("command=11 request=2 no_answer", timeout=2000) as (session, simulator, _):
        arrived: queue.Queue[bytes] = queue.Queue()
        session.on_notification(MOTOR_POSITION, arrived.put)
        assert session.send(MOTOR_POSITION, SUBSCRIBE_MOTOR)[1] == ""
        assert arrived.get(timeout=WAIT) == b"AD1\x00\x01" + bytes(4)
        assert session.send(MACHINE_INFO) == (INFO, "")
        simulator.control("rule command=10 no_answer")
        session.on_frame(
            lambda direction, frame: (
                simulator.control("notify GetMotorPosition size=4") if direction == vorlin.Tx else None
            )
        )
        assert session.send(MACHINE_INFO) == timed_out(MACHINE_INFO)
        assert arrived.get(timeout=WAIT) == bytes(4)


@pytest.mark.parametrize(
    "rule", ["no_answer", "wrong_command_id", "corrupt=version", "corrupt=header_length"]
)
def test_what_never_answers_times_out_and_the_session_goes_on(rule: str) -> None:
    with session_with(f"command=11 {rule}", timeout=SHORT, attempts=2) as (session, simulator, _):
        assert session.send(MACHINE_INFO) == timed_out(MACHINE_INFO, 2)
        for _ in range(2):
            simulator.wait_for("request", command=MACHINE_INFO)
        assert session.send(CLIENT_ID) == (b"\x01", "")
        assert session.is_connected()


def test_a_retry_gets_its_answer() -> None:
    with session_with("command=11 request=1 no_answer", timeout=SHORT, attempts=3) as (session, _, _):
        assert session.send(MACHINE_INFO) == (INFO, "")


def test_duplicates_answer_nobody_else() -> None:
    with session_with("command=11 duplicate=3") as (session, _, _):
        assert session.send(MACHINE_INFO) == (INFO, "")
        assert session.send(CLIENT_ID) == (b"\x01", "")
        assert len(session.send(SERVER_TIME)[0]) == 8


@pytest.mark.parametrize(
    ("rule", "outcome"),
    [
        (
            "major_error=0x21",
            "VORLIN protocol error (majorError): HeaderLengthIncorrect (0x00000001) | "
            "ExclusiveControlRequired (0x00000020)",
        ),
        ("major_error=0x400", "VORLIN protocol error (majorError): Unknown error"),
    ],
)
def test_protocol_errors_fail_the_request(rule: str, outcome: str) -> None:
    with session_with(f"command=11 request=1 {rule}") as (session, _, _):
        assert session.send(MACHINE_INFO) == (None, outcome)
        assert session.send(MACHINE_INFO) == (INFO, "")


def test_protocol_warnings_do_not() -> None:
    with session_with("minor_error=UnknownRequestVersion") as (session, _, _):
        assert session.send(MACHINE_INFO) == (INFO, "")


def test_command_errors_are_answers() -> None:
    with session_with("command=2 command_error=0x0003") as (session, _, _):
        assert session.send(2) == (b"\x00\x03", "")


@pytest.mark.parametrize("size", [1, 2, 3, 19, 21])
def test_split_anywhere(size: int) -> None:
    with session_with(f"split={size}") as (session, _, _):
        assert session.send(MACHINE_INFO) == (INFO, "")
        assert len(session.send(SUPPORTED_COMMANDS)[0]) == 2 + 2 * 206


def test_glued_frames_are_taken_apart_in_order() -> None:
    with session_with("command=158 glued=50") as (session, _, _):
        arrived: list[bytes] = []
        session.on_notification(MOTOR_POSITION, arrived.append)
        payload, problem = session.send(MOTOR_POSITION, b"AD1\x00\x01\x00")
        assert (payload, problem) == (b"\x00\x00AD1\x00\x01" + bytes(4), "")
        assert arrived == [b"AD1\x00\x01" + bytes(4)] * 50


@pytest.mark.parametrize(
    ("rule", "outcome"),
    [
        ("junk", "Invalid protocol ID (expected 'VR')"),
        ("corrupt=protocol", "Invalid protocol ID (expected 'VR')"),
        ("junk=hex:5652010900100000", "Unknown message type"),
        ("corrupt=type", "Unknown message type"),
    ],
)
def test_a_malformed_stream_costs_the_request_in_flight_only(rule: str, outcome: str) -> None:
    with session_with(f"command=11 request=1 {rule}") as (session, _, _):
        assert session.send(MACHINE_INFO) == (None, outcome)
        assert session.is_connected()
        assert session.send(CLIENT_ID) == (b"\x01", "")


def test_a_short_payload_arrives_as_it_is() -> None:
    with session_with("command=11 short_payload=1") as (session, _, _):
        assert session.send(MACHINE_INFO) == (INFO[:-1], "")


def test_an_announced_length_that_never_comes_poisons_one_connection_only() -> None:
    rule = "command=11 request=1 announce=100000000"
    with session_with(rule, timeout=SHORT, reconnect=True) as (session, simulator, states):
        assert session.send(MACHINE_INFO) == timed_out(MACHINE_INFO)
        assert session.send(CLIENT_ID) == timed_out(CLIENT_ID)
        simulator.control("close")
        assert states.get(timeout=WAIT)[0] is False
        assert states.get(timeout=WAIT)[0] is True
        assert session.send(MACHINE_INFO) == (INFO, "")


@pytest.mark.parametrize("how", ["half_close", "close", "reset"])
@pytest.mark.parametrize("moment", ["instead", "middle"])
def test_an_end_fails_the_request_and_a_new_connection_serves_the_next(how: str, moment: str) -> None:
    rule = f"command=11 request=1 {how}={moment}"
    with session_with(rule, reconnect=True) as (session, _, states):
        assert session.send(CLIENT_ID) == (b"\x01", "")
        payload, problem = session.send(MACHINE_INFO)
        assert payload is None
        assert problem
        connected, reason = states.get(timeout=WAIT)
        assert (connected, reason) == (False, problem)
        assert states.get(timeout=WAIT)[0] is True
        assert session.client_id() == 0
        assert session.send(MACHINE_INFO) == (INFO, "")


@pytest.mark.parametrize("how", ["half_close", "close"])
def test_an_end_behind_an_answer_loses_nothing(how: str) -> None:
    with session_with(f"command=11 {how}=after") as (session, _, states):
        assert session.send(MACHINE_INFO) == (INFO, "")
        assert states.get(timeout=WAIT)[0] is False
        assert session.send(MACHINE_INFO) == (None, "Not connected")


def test_silence_after_accept_times_out() -> None:
    with session_with("connection=1 silent", timeout=SHORT) as (session, simulator, _):
        assert session.send(CLIENT_ID) == timed_out(CLIENT_ID)
        simulator.wait_for("request", command=CLIENT_ID)
        assert session.is_connected()


def test_dropped_after_some_frames() -> None:
    with session_with("connection=1 drop_after=2", reconnect=True) as (session, _, states):
        assert session.send(CLIENT_ID) == (b"\x01", "")
        assert session.send(MACHINE_INFO) == (INFO, "")
        assert [states.get(timeout=WAIT)[0] for _ in range(2)] == [False, True]
        assert session.send(MACHINE_INFO) == (INFO, "")


@pytest.mark.parametrize("how", ["close", "reset"])
def test_dropped_on_accept_until_it_is_let_in(how: str) -> None:
    rules = [f"connection={number} drop_on_accept={how}" for number in (1, 2, 3)]
    with SimulatorProcess(rules=rules) as simulator:
        config = vorlin.SessionConfig()
        config.host, config.port, config.reconnect_delay = simulator.host, simulator.port, 1
        session = vorlin.VorlinSession(config)
        session.connect()
        simulator.wait_for("accepted", connection=4)
        while session.send(CLIENT_ID) != (b"\x01", ""):
            assert simulator.returncode is None
        session.disconnect()


def test_a_burst_arrives_whole_and_in_order() -> None:
    count = 100_000
    with session_with(f"command=11 burst={count} of=GetMotorPosition size=10") as (session, _, _):
        numbers: list[int] = []
        done: queue.Queue[None] = queue.Queue()

        def take(payload: bytes) -> None:
            numbers.append(int.from_bytes(payload[:4], "big"))
            if len(numbers) == count:
                done.put(None)

        session.on_notification(MOTOR_POSITION, take)
        assert session.send(MACHINE_INFO) == (INFO, "")
        done.get(timeout=60)
        assert numbers == list(range(count))


def test_one_huge_notification() -> None:
    size = 64 << 20
    with session_with() as (session, simulator, _):
        arrived: queue.Queue[int] = queue.Queue()
        session.on_notification(MOTOR_POSITION, lambda payload: arrived.put(len(payload)))
        assert session.send(CLIENT_ID) == (b"\x01", "")
        simulator.control(f"notify GetMotorPosition size={size}")
        assert arrived.get(timeout=60) == size
