"""Decisions about one call: when it may go out, and what its outcome means."""

from __future__ import annotations

from typing import Any, Final, NamedTuple

from . import link
from .actions import Ask, AwaitChange, GiveUp, Steps
from .control import RELEASE, TAKING
from .conversation import Conversation
from .errors import CommandRefused, DecodeError, ProtocolRefusal, RequestTimeout, VorlinError
from .failures import another_answer, command_refused, failure, not_connected
from .late_answers import NO_OP
from .plan import Plan

CHANGE: Final = "change"
LEAST: Final = 0.001
"""Seconds; to a link 0 means its own time-out."""


class Call(NamedTuple):
    """`timeout`: seconds. `repeats`: how often it may be sent again after a loss; then it also waits for a connection
    that is being restored."""

    plan: Plan[Any, Any]
    values: tuple[Any, ...]
    payload: bytes
    timeout: float
    check: bool = True
    repeats: int = 0


class Answer(NamedTuple):
    response: Any
    connection: int


def call_of(
    talk: Conversation,
    plan: Plan[Any, Any],
    values: tuple[Any, ...],
    payload: bytes,
    timeout: float,
    check: bool = True,
) -> Call:
    """What a user's call may do by itself: reads are repeated, changes never."""
    repeats = talk.options.retry_reads if plan.effect != CHANGE else 0
    return Call(plan, values, payload, timeout, check, repeats)


def ask(talk: Conversation, request: Ask) -> Steps[tuple[Any, ...]]:
    """One request. If the wait for it is interrupted, its answer may still come."""
    try:
        outcome: tuple[Any, ...] = yield request
        if answered(outcome):
            talk.answered()
        return outcome
    except GeneratorExit:
        raise  # the face has given the decision up, and looks after the answer itself
    except BaseException:
        talk.doubt(request.command_id)
        raise


def answered(outcome: tuple[Any, ...]) -> bool:
    """Whether the machine has sent an answer to this request, even if a refusal."""
    return outcome[0] == link.OK or bool(outcome[0] == link.PROTOCOL and outcome[3])


def call(talk: Conversation, wanted: Call, sent: tuple[int, tuple[Any, ...]] | None = None) -> Steps[Answer]:
    """A call from when it is wanted to its answer.

    `sent`: the connection and the outcome of a first attempt that a face has made, when nothing stood in its way.
    """
    plan, host = wanted.plan, talk.host
    deadline = talk.clock() + wanted.timeout
    repeats, asked_anew = wanted.repeats, False
    trouble: VorlinError | None = None
    while True:
        if sent is None:
            connection = yield from clearance(talk, wanted, deadline, trouble)
            left = min(wanted.timeout, max(deadline - talk.clock(), LEAST))
            # In a block, the next change must not go out if the machine has said meanwhile that control is gone.
            in_order = talk.control.blocks > 0 or plan.id in TAKING
            outcome = yield from ask(talk, Ask(plan.id, wanted.payload, left, connection, in_order))
        else:
            (connection, outcome), sent = sent, None
        if outcome[0] == link.OK:
            response = decoded(talk, plan, outcome[2])
            if talk.options.late_answers == "ignore" or plan.echoes(wanted.values, response):
                return Answer(judged(talk, wanted, response, outcome[4]), connection)
            talk.doubt(plan.id)
            trouble = another_answer(plan.name, host, wanted.timeout)
            again = plan.effect != CHANGE and not asked_anew
            asked_anew = True
        else:
            trouble = failure(plan.name, host, outcome, wanted.timeout)
            settle(talk, plan.id, connection, outcome)
            again = outcome[0] == link.TRANSPORT and repeats > 0
            repeats -= 1
        if not again or talk.clock() >= deadline:
            log_failure(talk, trouble)
            raise trouble


def decoded(talk: Conversation, plan: Plan[Any, Any], payload: bytes) -> Any:
    """The response. A DecodeError is told whose response it was."""
    try:
        return plan.decode_response(payload)
    except DecodeError as error:
        error.args = (f"{error} (from {talk.host})",)
        talk.log.warning("%s", error)
        raise


def settle(talk: Conversation, command_id: int, connection: int, outcome: tuple[Any, ...]) -> None:
    """What an outcome that is not OK says of the connection, and of answers that may still come."""
    code, text, _, major, _ = outcome
    if code == link.TIMEOUT or (code == link.PROTOCOL and not major):
        talk.doubt(command_id)
    elif code == link.TRANSPORT and talk.ready == connection:
        talk.gone(text)


def judged(talk: Conversation, wanted: Call, response: Any, minor: int) -> Any:
    """The response, unless the machine refused; its warnings are passed on."""
    plan = wanted.plan
    if minor:
        talk.warn(plan.name, minor)
    code = plan.command_error(response)
    if not code and plan.id == RELEASE and talk.control.blocks:
        talk.control.lose("the program gave it back by release_exclusive_control")
    if code and wanted.check:
        refusal = command_refused(plan.name, talk.host, code, plan.error_texts(code), response)
        log_failure(talk, refusal)
        raise refusal
    return response


def clearance(
    talk: Conversation, wanted: Call, deadline: float, trouble: VorlinError | None = None
) -> Steps[int]:
    """The connection on which the call may go out now. `trouble`: why it has to be sent again, if it has."""
    plan, waits = wanted.plan, wanted.repeats > 0
    while True:
        talk.check_open(plan.name)
        if plan.effect == CHANGE:
            talk.control.check(plan.name, talk.host)
        if not talk.ready:
            left = deadline - talk.clock()
            if not (waits and talk.options.reconnect) or left <= 0:
                raise trouble or not_connected(plan.name, talk.host)
            yield AwaitChange(talk.version, left)
        elif not talk.late.concern(plan.id):
            return talk.ready
        else:
            yield from exclude_late_answer(talk, wanted, deadline)
            waits = True  # nothing of this call was sent, so that it may wait whatever its effect is


def exclude_late_answer(talk: Conversation, wanted: Call, deadline: float) -> Steps[None]:
    """An earlier request of this command may still be answered: makes sure that it is not, or gives up the
    connection."""
    plan, connection = wanted.plan, talk.ready
    fence = talk.late.fence_for(plan.id)
    if talk.options.late_answers == "reconnect" or fence is None:
        talk.lost(f"given up, as {plan.name} was not answered in time and its answer may still come")
        yield GiveUp()
        return
    mark, left = talk.late.mark(), max(deadline - talk.clock(), LEAST)
    outcome = yield from ask(talk, Ask(fence, b"", left, connection))
    if answered(outcome):
        talk.late.answered(fence, mark)
        talk.update()
        return
    settle(talk, fence, connection, outcome)
    if outcome[0] == link.TRANSPORT:
        return
    if talk.silence() >= talk.options.timeout and talk.ready == connection:
        talk.lost(f"given up, as the machine has answered nothing for {talk.silence():.3g} s")
        yield GiveUp()
    error = RequestTimeout(
        f"{plan.name} was not sent: {talk.host} has not answered an earlier one yet, nor a command that does nothing "
        f"within {left:.3g} s.",
        command=plan.name,
        timeout=wanted.timeout,
    )
    log_failure(talk, error)
    raise error


def check_idle(talk: Conversation, timeout: float) -> Steps[None]:
    """Asks a machine that nobody has asked for a while; a connection without an answer is given up."""
    connection, mark = talk.ready, talk.late.mark()
    outcome = yield Ask(NO_OP, b"", timeout, connection)
    if talk.ready != connection:
        return
    if answered(outcome):
        talk.answered()
        talk.late.answered(NO_OP, mark)
        talk.update()
    elif outcome[0] == link.TIMEOUT:
        talk.lost(f"given up, as the machine has answered nothing for {timeout:g} s")
        yield GiveUp()


def log_failure(talk: Conversation, error: VorlinError) -> None:
    if isinstance(error, RequestTimeout | ProtocolRefusal | CommandRefused):
        talk.log.warning("%s", error)
