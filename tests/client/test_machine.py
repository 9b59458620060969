"""A connected machine, with threads and with asyncio: what goes wrong and how it is told, and that it comes back."""

from __future__ import annotations

import logging
import queue
import socket
import threading
from typing import Any

import pytest
import vorlinkit
from conftest import Connected
from faces import Threads
from vorlinkit.client import plans
from vorlinkit.client.plan import Plan
from vorlinkit.simulator import SimulatorProcess
from vorlinkit.wire.frames import MajorError

SHORT = 0.3

FAILURES = {
    "time-out": (["no_answer"], vorlinkit.RequestTimeout, {"timeout": SHORT}, "did not answer within 0.3 s"),
    "loss": (["reset"], vorlinkit.ConnectionLost, {"sent": True}, "look before you repeat it"),
    "protocol": (
        ["major_error=ExclusiveControlRequired"],
        vorlinkit.ProtocolRefusal,
        {"flags": MajorError.ExclusiveControlRequired},
        "machine.exclusive_control()",
    ),
    "command": (
        ["command_error=2"],
        vorlinkit.CommandRefused,
        {"code": 2, "texts": ("Closed Loop Control Active", "Motor Position limited by Device")},
        "(CommandError 0x0002)",
    ),
    "short": (
        ["short_payload"],
        vorlinkit.DecodeError,
        {"field": "NewTargetMotorPosition", "offset": 7},
        "byte 7",
    ),
    "junk": (["junk=8"], vorlinkit.DecodeError, {}, "no VORLIN response"),
}


@pytest.mark.parametrize(("rule", "kind", "attributes", "text"), FAILURES.values(), ids=FAILURES.keys())
def test_a_change_that_fails(
    connected: Connected, caplog: Any, rule: Any, kind: Any, attributes: Any, text: str
) -> None:
    simulator, machine = connected(rules=[f"command=SetMotorPosition {rule[0]}"])
    with pytest.raises(vorlinkit.VorlinError) as raised:
        machine.set_motor_position("AD1", 1, 300, timeout=SHORT if kind is vorlinkit.RequestTimeout else 5)
    error: Any = raised.value
    assert type(error) is kind and error.command == "SetMotorPosition"
    assert {name: getattr(error, name) for name in attributes} == attributes
    assert str(error).startswith("SetMotorPosition: ") and text in str(error) and simulator.host in str(error)
    if kind in (vorlinkit.RequestTimeout, vorlinkit.ProtocolRefusal, vorlinkit.CommandRefused):
        assert (f"vorlinkit.{simulator.host}", logging.WARNING, str(error)) in caplog.record_tuples
    simulator.control("clear-rules")
    assert machine.get_machine_info().serial_number
    asked = [event for event in simulator.events if event.get("name") == "SetMotorPosition"]
    assert len(asked) == 1


def test_what_is_refused_before_it_is_sent(connected: Connected) -> None:
    simulator, machine = connected()
    with pytest.raises(vorlinkit.EncodeError, match=r"MotorPosition.*65535"):
        machine.set_motor_position("AD1", 1, 65536)
    with pytest.raises(ValueError, match="above 0"):
        machine.get_machine_info(timeout=0)
    simulator.control("restart away=60000")
    assert isinstance(machine.events.get(5), vorlinkit.Lost)
    with pytest.raises(vorlinkit.NotConnected, match="no connection to 127.0.0.1"):
        machine.set_motor_position("AD1", 1, 300)
    machine.close()
    with pytest.raises(vorlinkit.Closed, match="the machine object was closed"):
        machine.get_machine_info()
    assert [event["name"] for event in simulator.events if event["event"] == "request"] == ["GetClientId"]


def test_machines_that_cannot_be_connected_to(face: Threads) -> None:
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        with pytest.raises(vorlinkit.ConnectError, match="Connection refused") as raised:
            face.connect(*free.getsockname())
    assert raised.value.reason.endswith("Connection refused")
    for rule, text in (("silent", "answers nothing within 0.3 s"), ("drop_on_accept=close", "no connection")):
        with SimulatorProcess(rules=[f"connection=1 {rule}"]) as simulator:
            with pytest.raises(vorlinkit.ConnectError, match=text):
                face.connect(simulator.host, simulator.port, timeout=SHORT)


def test_responses_that_are_no_failures(connected: Connected, caplog: Any) -> None:
    rules = [
        "command=GetMachineInfo minor_error=UnknownRequestVersion",
        "command=GetMotorPosition command_error=1",
    ]
    simulator, machine = connected(rules=rules)
    assert machine.get_machine_info().serial_number == "SIM-0001"
    assert "UnknownRequestVersion" in str(machine.last_warning) and "UnknownRequestVersion" in caplog.text
    assert machine.get_motor_position("AD1", 1, check=False).command_error == 1
    assert machine.request(11)[2:] == b"1.0\0SIM-0001\0VorlinKit simulator\0"
    with pytest.raises(vorlinkit.ProtocolRefusal, match="UnsupportedCommandId"):
        machine.request(60_000, b"\1")


def test_every_command_is_called(connected: Connected) -> None:
    simulator, machine = connected()
    kinds = {"string": "AD1", "uuid": "0123ABCD-0000-4F00-8000-00112233AABB", "list": (), "blob": b""}
    everything = [plan for plan in vars(plans).values() if isinstance(plan, Plan)]
    for plan in everything:
        given = {name: kinds.get(kind, 1) for name, kind in zip(plan.names, plan.kinds, strict=True)}
        try:
            getattr(machine, plan.snake)(**given, check=False)
        except vorlinkit.ProtocolRefusal:
            assert (
                plan.name == "GetModeListWithNotificationGallix"
            )  # shares its id, and this is not that machine
    simulator.control("mark asked")
    named = {event["command"] for event in simulator.events if event["event"] == "request"}
    assert len(everything) > 200 and named == {plan.id for plan in everything}


# --- what used to go through without a word --------------------------------------------------------------


def test_settings_behind_a_loss_are_not_sent(connected: Connected) -> None:
    """Ten settings under control; the connection breaks after the third and comes back by itself."""
    simulator, machine = connected("--strict-control")
    done, lost = [], []
    with machine.exclusive_control() as control:
        for position in range(10):
            try:
                machine.set_motor_position("AD1", 1, position * 100)
                done.append(position)
            except vorlinkit.VorlinError as error:
                lost.append(type(error))
            if position == 2:
                simulator.control("close")
                assert [type(machine.events.get(5)) for _ in range(2)] == [vorlinkit.Lost, vorlinkit.Restored]
        assert "connection was lost" in control.lost
    assert done == [0, 1, 2] and set(lost) == {vorlinkit.ControlLost}
    assert sum(event.get("name") == "SetMotorPosition" for event in simulator.events) == 3
    with machine.exclusive_control(user="Shift 2", force=True):
        machine.set_motor_position("AD1", 1, 300)


def test_the_end_of_a_block_does_not_hide_its_error(connected: Connected) -> None:
    _, machine = connected(rules=["command=ReleaseExclusiveControl command_error=1"])
    with pytest.raises(ZeroDivisionError), machine.exclusive_control():
        raise ZeroDivisionError
    with pytest.raises(vorlinkit.CommandRefused), machine.exclusive_control():
        pass


@pytest.mark.parametrize("policy", ["fence", "reconnect"])
def test_a_late_answer_is_never_another_feeders_value(connected: Connected, policy: str) -> None:
    simulator, machine = connected(
        rules=["command=GetFeedRate from=1 to=8 delay=150"], late_answers=policy, retry_reads=0
    )
    held = {"F1": 11, "F2": 2}
    for feeder, rate in held.items():
        simulator.set("GetFeedRate", FeedConfigurerID=feeder, FeedRate=rate)
    late = 0
    for turn in range(12):
        for feeder, rate in held.items():
            try:
                assert machine.get_feed_rate(feeder, timeout=0.1 if turn < 4 else 5).feed_rate == rate
            except (vorlinkit.RequestTimeout, vorlinkit.NotConnected):
                late += 1
    assert late >= 4


def test_subscriptions_outlive_a_restart(connected: Connected) -> None:
    simulator, machine = connected("--strict-client-id", "--notify-on-change-only")
    with machine.subscribe.get_feed_rate("F1") as rates, machine.subscribe.get_feed_rate("F1") as same:
        simulator.control("restart away=50")
        assert isinstance(machine.events.get(5), vorlinkit.Lost)
        restored = machine.events.get(5)
        assert restored.renewed == ("GetFeedRate('F1', 1)",) and restored.failed == {} and restored.away > 0
        simulator.set("GetFeedRate", FeedConfigurerID="F2", FeedRate=5)
        simulator.set("GetFeedRate", FeedConfigurerID="F1", FeedRate=7)
        assert rates.get(5).feed_rate == same.get(5).feed_rate == 7
        assert rates.response.command_error == 0
    simulator.wait_for(
        "request", name="GetFeedRate", values='{"FeedConfigurerID": "F1", "NotificationLevel": 0}'
    )
    asked = [event["values"] for event in simulator.events if event.get("name") == "GetFeedRate"]
    assert len(asked) == 3


def test_a_subscription_that_is_refused(connected: Connected) -> None:
    simulator, machine = connected(rules=["command=GetFeedRate request=2 command_error=1"])
    with machine.subscribe.get_feed_rate("F1") as rates:
        assert rates.get(5).feed_configurer_id == "F1"
        simulator.control("close")
        assert isinstance(machine.events.get(5), vorlinkit.Lost)
        assert [type(error) for error in machine.events.get(5).failed.values()] == [vorlinkit.CommandRefused]
        with pytest.raises(vorlinkit.CommandRefused):
            next(rates)
    simulator.control("rule command=GetFeedRate command_error=1")
    with pytest.raises(vorlinkit.CommandRefused), machine.subscribe.get_feed_rate("F1"):
        pass


def test_a_slow_listener_keeps_the_newest(connected: Connected) -> None:
    simulator, machine = connected()
    with machine.listen(plans.CAPTURE_FRAME.id, buffer=3) as frames, machine.listen(44) as behind:
        simulator.control("notify CaptureFrame count=10 size=4")
        simulator.control("notify GetServerStatus")
        behind.get(5)
        assert [int.from_bytes(frames.get(5), "big") for _ in range(3)] == [7, 8, 9] and frames.dropped == 7
        with pytest.raises(vorlinkit.RequestTimeout, match="nothing came within"):
            frames.get(0.01)
        frames.cancel()
        with pytest.raises((StopIteration, StopAsyncIteration)):
            next(frames)


def test_a_frozen_machine_is_noticed(connected: Connected) -> None:
    simulator, machine = connected(idle_check=0.05, timeout=SHORT)
    simulator.control("rule command=NoOpCommand connection=1 freeze")
    assert "answered nothing for 0.3 s" in machine.events.get(5).reason
    assert isinstance(machine.events.get(5), vorlinkit.Restored)
    assert machine.get_machine_info().serial_number and machine.connected


# --- handlers -------------------------------------------------------------------------------------------


def test_handlers_may_call_the_machine_and_fail(face: Threads) -> None:
    heard: queue.SimpleQueue[Any] = queue.SimpleQueue()
    with SimulatorProcess() as simulator:
        options: Any = {"on_event": heard.put, "on_handler_error": heard.put}
        with face.connect(simulator.host, simulator.port, reconnect_delay=0.05, **options) as machine:

            def calls(_: Any) -> None:
                heard.put(held_machine.get_machine_info().serial_number)
                raise ValueError("a handler's own")

            async def awaits(_: Any) -> None:
                heard.put((await held_machine.get_machine_info()).serial_number)
                raise ValueError("a handler's own")

            held_machine = getattr(machine, "_held", machine)
            handler = calls if face.name == "threads" else awaits
            with machine.subscribe.get_feed_rate("F1", handler=handler):
                assert heard.get(timeout=5) == "SIM-0001"
                assert isinstance(heard.get(timeout=5), ValueError)
                simulator.control("close")
                assert isinstance(heard.get(timeout=5), vorlinkit.Lost)


def test_closing_ends_what_waits(connected: Connected) -> None:
    simulator, machine = connected("--notify-on-change-only", rules=["command=GetMachineInfo no_answer"])
    ends: queue.SimpleQueue[Any] = queue.SimpleQueue()

    def ended_by(work: Any) -> None:
        try:
            work()
        except BaseException as error:
            ends.put(type(error))

    with machine.subscribe.get_feed_rate("F1") as rates:
        waiting = [
            threading.Thread(target=ended_by, args=(one,))
            for one in (machine.get_machine_info, rates.__next__)
        ]
        for thread in waiting:
            thread.start()
        simulator.wait_for("request", name="GetMachineInfo")
        machine.close()
        for thread in waiting:
            thread.join(5)
    assert {ends.get(timeout=5), ends.get(timeout=5)} - {StopIteration, StopAsyncIteration} == {
        vorlinkit.Closed
    }
