"""What the client decides, as dialogues: the action that must come, and what happens to it."""

from __future__ import annotations

from typing import Any

import pytest
from dialogue import JUNK, LOST, REFUSED, TIMEOUT, UNSENT, Machine, ok, position, target
from vorlinkit.client import calls, errors, plans
from vorlinkit.client.controlling import give_back, take_control
from vorlinkit.client.conversation import Lost, Restored
from vorlinkit.client.handshake import connect, handshake
from vorlinkit.client.subscribing import subscribe, unsubscribe

READ = ("GET_MOTOR_POSITION", "AD1", 1, 0)
CHANGE = ("SET_MOTOR_POSITION", "AD1", 1, 300)


def comes_back(machine: Machine) -> None:
    machine.goes()
    machine.later(2)
    machine.comes(2)


def time_passes(machine: Machine) -> None:
    machine.later(10)


def late_answer(machine: Machine, *call: Any) -> None:
    """A call ends without its answer."""
    assert isinstance(machine.plays(machine.call(*call), (ask(call), TIMEOUT)), errors.RequestTimeout)


def ask(call: tuple[Any, ...], connection: int = 1) -> str:
    return f"ask {getattr(plans, call[0]).id} on {connection}"


FENCE, OTHER_FENCE, AGAIN = "ask 8 on 1", "ask 9 on 1", "ask 158 on 2"

LOSSES = {
    "a read is asked again when the connection is back": (
        READ,
        [(ask(READ), LOST), ("wait 10", comes_back), (AGAIN, position())],
        7,
    ),
    "a read is not repeated more often than it may be": (
        READ,
        [(ask(READ), LOST), ("wait 10", comes_back), (AGAIN, LOST)],
        errors.ConnectionLost,
    ),
    "a read waits no longer than its time-out": (
        READ,
        [(ask(READ), LOST), ("wait 10", time_passes)],
        errors.ConnectionLost,
    ),
    "a change is never repeated": (CHANGE, [(ask(CHANGE), LOST)], errors.ConnectionLost),
    "a change that was not sent says so": (CHANGE, [(ask(CHANGE), UNSENT)], errors.NotConnected),
    "a time-out is no loss": (READ, [(ask(READ), TIMEOUT)], errors.RequestTimeout),
    "a refusal by the protocol": (CHANGE, [(ask(CHANGE), REFUSED)], errors.ProtocolRefusal),
    "a refusal by the command": (READ, [(ask(READ), position(error=1))], errors.CommandRefused),
    "an answer that cannot be read": (READ, [(ask(READ), ok(b"\0"))], errors.DecodeError),
    "an answer that is no response": (READ, [(ask(READ), JUNK)], errors.DecodeError),
    "an answer about another object, to a change": (
        CHANGE,
        [(ask(CHANGE), target("AD2"))],
        errors.RequestTimeout,
    ),
    "an answer about another object, to a read": (
        READ,
        [(ask(READ), position("AD2")), (FENCE, ok()), (ask(READ), position())],
        7,
    ),
    "only answers about another object": (
        READ,
        [(ask(READ), position("AD2")), (FENCE, ok()), (ask(READ), position("AD2"))],
        errors.RequestTimeout,
    ),
}


@pytest.mark.parametrize(("call", "lines", "end"), LOSSES.values(), ids=LOSSES.keys())
def test_a_call(call: tuple[Any, ...], lines: Any, end: Any) -> None:
    machine = Machine()
    result = machine.plays(machine.call(*call), *lines)
    if isinstance(end, type):
        assert type(result) is end
        assert result.command in str(result) and " m" in str(result)
    else:
        assert result.response.actual_motor_position == end


def test_without_a_connection_reads_wait_and_changes_do_not() -> None:
    machine = Machine()
    machine.goes()
    assert isinstance(machine.plays(machine.call(*CHANGE)), errors.NotConnected)
    assert isinstance(machine.plays(machine.call(*READ), ("wait 10", time_passes)), errors.NotConnected)
    machine.comes(2)
    assert machine.told == [Lost("cable"), Restored((), {}, 10.0)]
    machine.talk.close("over")
    assert isinstance(machine.plays(machine.call(*READ)), errors.Closed)


GAPS = {
    "the fence is answered": ({}, [(FENCE, ok()), (ask(READ), position())], 7),
    "the fence is refused": ({}, [(FENCE, REFUSED), (ask(READ), position())], 7),
    "the fence is not answered": ({}, [(FENCE, TIMEOUT)], errors.RequestTimeout),
    "the fence meets a loss": ({}, [(FENCE, LOST), ("wait 10", comes_back), (AGAIN, position())], 7),
    "a new connection": (
        {"late_answers": "reconnect"},
        [("GiveUp", None), ("wait 10", comes_back), (AGAIN, position())],
        7,
    ),
    "ignored": ({"late_answers": "ignore"}, [(ask(READ), position())], 7),
}


@pytest.mark.parametrize(("options", "lines", "end"), GAPS.values(), ids=GAPS.keys())
def test_a_late_answer_is_excluded(options: Any, lines: Any, end: Any) -> None:
    machine = Machine(**options)
    late_answer(machine, *READ)
    stays_clear = options.get("late_answers") == "ignore"
    assert machine.talk.clear == (1 if stays_clear else 0)
    assert (
        machine.plays(machine.call("GET_SERVER_TIME"), ("ask 10 on 1", ok(bytes(8)))).response.timestamp == 0
    )
    result = machine.plays(machine.call(*READ), *lines)
    if isinstance(end, type):
        assert type(result) is end and "was not sent" in str(result)
    else:
        assert result.response.actual_motor_position == end
        assert machine.talk.clear == machine.talk.ready


def test_a_fence_whose_own_answer_may_be_late_closes_only_younger_gaps() -> None:
    machine = Machine()
    late_answer(machine, "NO_OP_COMMAND")
    late_answer(machine, *READ)  # may be answered after the NoOpCommand that is still open
    steps = machine.call(*READ)
    result = machine.plays(steps, (OTHER_FENCE, ok()), (ask(READ), position()))
    assert result.response.actual_motor_position == 7
    for call in (("NO_OP_COMMAND",), ("GET_HEADER_VERSIONS",), READ):
        late_answer(machine, *call)
    steps = machine.call(*READ)
    machine.plays(steps, ("GiveUp", None), ("wait 10", comes_back), (AGAIN, position()))


def test_a_change_behind_a_gap_waits_for_the_new_connection() -> None:
    machine = Machine(late_answers="reconnect")
    late_answer(machine, *CHANGE)
    result = machine.plays(
        machine.call(*CHANGE), ("GiveUp", None), ("wait 10", comes_back), ("ask 159 on 2", target())
    )
    assert result.connection == 2


def test_an_interrupted_wait_leaves_a_gap() -> None:
    machine = Machine()
    steps = machine.call(*READ)
    next(steps)
    with pytest.raises(KeyboardInterrupt):
        steps.throw(KeyboardInterrupt())
    assert machine.plays(machine.call(*READ), (FENCE, ok()), (ask(READ), position())).connection == 1


# --- exclusive control --------------------------------------------------------------------------------


def takes_control(machine: Machine) -> None:
    steps = take_control(machine.talk, plans.GET_EXCLUSIVE_CONTROL, (), 10)
    assert machine.plays(steps, ("ask 2 on 1", ok(b"\0\0"))) is None


def gives_back(machine: Machine, *lines: Any) -> Any:
    return machine.plays(give_back(machine.talk, plans.RELEASE_EXCLUSIVE_CONTROL, 10), *lines)


def releases_it_itself(machine: Machine) -> None:
    machine.plays(machine.call("RELEASE_EXCLUSIVE_CONTROL"), ("ask 3 on 1", ok(b"\0\0")))


@pytest.mark.parametrize(
    ("ends", "connection"),
    [
        (comes_back, 2),
        (lambda machine: machine.talk.control.notified(plans.GET_EXCLUSIVE_CONTROL.id), 1),
        (releases_it_itself, 1),
    ],
)
def test_a_block_whose_control_is_gone_changes_nothing_any_more(ends: Any, connection: int) -> None:
    machine = Machine()
    takes_control(machine)
    assert machine.talk.clear == 0
    assert machine.plays(machine.call(*CHANGE), (ask(CHANGE), target())).connection == 1
    ends(machine)
    refused = machine.plays(machine.call(*CHANGE))
    assert isinstance(refused, errors.ControlLost) and "SetMotorPosition was not sent" in str(refused)
    assert machine.plays(machine.call(*READ), (ask(READ, connection), position())).connection == connection
    assert gives_back(machine) is None
    assert machine.plays(machine.call(*CHANGE), (ask(CHANGE, connection), target())).connection == connection


def test_the_last_block_gives_control_back() -> None:
    machine = Machine()
    takes_control(machine)
    assert machine.plays(take_control(machine.talk, plans.GET_EXCLUSIVE_CONTROL, (), 10)) is None
    machine.talk.control.notified(plans.FORCED_GET_EXCLUSIVE_CONTROL.id)  # not what it was taken with
    assert gives_back(machine) is None
    assert isinstance(gives_back(machine, ("ask 3 on 1", ok(b"\0\1"))), errors.CommandRefused)
    steps = take_control(machine.talk, plans.GET_EXCLUSIVE_CONTROL, (), 10)
    assert isinstance(machine.plays(steps, ("ask 2 on 1", ok(b"\0\2"))), errors.CommandRefused)
    assert machine.talk.clear == 1


def test_control_that_is_taken_away_ahead_of_the_answer_was_never_there() -> None:
    def taken_away(machine: Machine) -> Any:
        machine.talk.control.notified(plans.GET_EXCLUSIVE_CONTROL.id)
        return ok(b"\0\0")

    machine = Machine()
    assert (
        machine.plays(
            take_control(machine.talk, plans.GET_EXCLUSIVE_CONTROL, (), 10), ("ask 2 on 1", taken_away)
        )
        is None
    )
    assert isinstance(machine.plays(machine.call(*CHANGE)), errors.ControlLost)


# --- connections and subscriptions ------------------------------------------------------------------------


class Listener:
    def __init__(self) -> None:
        self.got: list[int] = []
        self.ended: list[Exception | None] = []

    def deliver(self, notifications: Any) -> None:
        self.got += [one.actual_motor_position for one in notifications]

    def end(self, error: Exception | None) -> None:
        self.ended.append(error)


def subscribes(machine: Machine, values: tuple[Any, ...], *lines: Any) -> tuple[Listener, Any]:
    listener, plan = Listener(), plans.GET_MOTOR_POSITION
    steps = subscribe(machine.talk, plan, values, plan.encode(values), 10, listener)
    return listener, machine.plays(steps, *lines)


def notification(device: str) -> bytes:
    return device.encode() + b"\0\1\0\x09\0\x09"


def test_subscriptions_to_one_object_share_a_request() -> None:
    machine = Machine()
    first, topic = subscribes(machine, ("AD1", 1, 1), (ask(READ), position()))
    second, same = subscribes(machine, ("AD1", 1, 1))
    third, _ = subscribes(machine, ("AD2", 1, 1), (ask(READ), position("AD2")))
    assert same is topic and topic.response.automated_device_id == "AD1"
    refused, error = subscribes(machine, ("AD1", 1, 9), (ask(READ), position(error=2)))
    assert isinstance(error, errors.CommandRefused) and topic.values == ("AD1", 1, 1)
    assert machine.talk.topics.route(158, [notification("AD1")]) == []
    unread = machine.talk.topics.route(158, [b"AD1", notification("AD1")])
    assert [type(error) for error in unread] == [errors.DecodeError]
    assert [one.got for one in (first, second, third, refused)] == [[9, 9], [9, 9], [], []]
    assert machine.plays(unsubscribe(machine.talk, topic, first, 10)) is None
    assert machine.plays(unsubscribe(machine.talk, topic, second, 10), (ask(READ), TIMEOUT)) is None
    machine.talk.close("over")
    assert (first.ended, third.ended) == ([], [None])


def test_a_new_connection_is_whole_before_calls_go_out() -> None:
    machine = Machine(client_id=True, ready=False)
    machine.talk.connected(1)
    machine.plays(handshake(machine.talk, 1), ("ask 1 on 1", ok(b"\5")))
    kept, _ = subscribes(machine, ("AD1", 1, 1), (ask(READ), position()))
    ended, _ = subscribes(machine, ("AD2", 1, 1), (ask(READ), position("AD2")))
    machine.goes()
    machine.later(3)
    machine.talk.connected(2)
    assert machine.plays(handshake(machine.talk, 2), ("ask 1 on 2", LOST)) is None
    machine.talk.connected(3)
    lines = [
        ("ask 1 on 3", ok(b"\1")),
        ("ask 158 on 3", position()),
        ("ask 158 on 3", position("AD2", error=1)),
    ]
    assert machine.talk.clear == 0
    assert machine.plays(handshake(machine.talk, 3), *lines) is None
    assert machine.talk.clear == 3
    lost, restored = machine.told
    assert isinstance(restored, Restored) and restored.away == 3.0
    assert restored.renewed == ("GetMotorPosition('AD1', 1, 1)",)
    assert [type(error) for error in restored.failed.values()] == [errors.CommandRefused]
    assert (kept.ended, [type(error) for error in ended.ended]) == ([], [errors.CommandRefused])


def test_what_is_agreed_on_an_old_connection_is_asked_for_on_the_new_one() -> None:
    def answered_late(machine: Machine) -> Any:
        comes_back(machine)
        return position()

    machine = Machine()
    _, topic = subscribes(machine, ("AD1", 1, 1), (ask(READ), answered_late), (AGAIN, position()))
    assert topic.confirmed


def test_a_machine_that_does_not_answer_the_handshake() -> None:
    machine = Machine(client_id=True, ready=False)
    steps = connect(machine.talk, 13)

    def handshake_fails(machine: Machine) -> None:
        machine.talk.connected(1)
        machine.plays(handshake(machine.talk, 1), ("ask 1 on 1", TIMEOUT))

    error = machine.plays(steps, ("Connect", ok()), ("wait 13", handshake_fails))
    assert isinstance(error, errors.ConnectError) and "answers nothing" in error.reason
    refused = Machine(ready=False)
    assert isinstance(refused.plays(connect(refused.talk, 13), ("Connect", LOST)), errors.ConnectError)
    old = Machine(client_id=True, ready=False)
    old.talk.connected(1)
    old.plays(handshake(old.talk, 1), ("ask 1 on 1", ok(b"\5")))
    old.goes()
    old.talk.connected(2)
    assert old.plays(handshake(old.talk, 2), ("ask 1 on 2", TIMEOUT), ("GiveUp", None)) is None
    assert old.talk.ready == 0


def test_a_machine_that_answers_nothing_is_given_up() -> None:
    machine = Machine()
    late_answer(machine, *READ)
    unanswered = machine.plays(machine.call(*READ), (FENCE, TIMEOUT))
    assert isinstance(unanswered, errors.RequestTimeout) and machine.talk.ready == 1
    machine.later(10)
    assert isinstance(
        machine.plays(machine.call(*READ), (FENCE, TIMEOUT), ("GiveUp", None)), errors.RequestTimeout
    )
    assert machine.told == [Lost("given up, as the machine has answered nothing for 10 s")]


def test_a_client_id_that_cannot_be_right_is_asked_for_again() -> None:
    for answers, ready in (((JUNK, ok(b"\5")), 1), ((ok(), REFUSED), 0), (((3, "", b"", 8, 0),), 1)):
        machine = Machine(client_id=True, ready=False)
        machine.talk.connected(1)
        machine.plays(handshake(machine.talk, 1), *(("ask 1 on 1", answer) for answer in answers))
        assert (machine.talk.ready, bool(machine.talk.failed)) == (ready, not ready)


def test_an_idle_machine_that_does_not_answer_is_given_up() -> None:
    machine = Machine()
    machine.plays(calls.check_idle(machine.talk, 5), (FENCE, ok()))
    assert machine.talk.ready == 1
    machine.plays(calls.check_idle(machine.talk, 5), (FENCE, TIMEOUT), ("GiveUp", None))
    assert machine.told == [Lost("given up, as the machine has answered nothing for 5 s")]
