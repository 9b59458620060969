"""Decisions about exclusive control: taking it for a block of calls, and giving it back."""

from __future__ import annotations

from typing import Any

from . import link
from .actions import Ask, Steps
from .calls import Call, ask, call, log_failure, settle
from .control import RELEASE
from .conversation import Conversation
from .errors import VorlinError
from .failures import failure
from .plan import Plan


def take_control(talk: Conversation, plan: Plan[Any, Any], values: tuple[Any, ...], timeout: float) -> Steps[None]:
    """Enters a block. A block inside another one, or beside it on another thread, shares its control."""
    control = talk.control
    control.check(plan.name, talk.host)
    if control.blocks:
        control.blocks += 1
        return
    answer = yield from call(talk, Call(plan, values, plan.encode(values), timeout))
    if control.blocks:  # another thread has been quicker; the machine gave control to both, as one client
        control.blocks += 1
    else:
        control.taken(answer.connection, plan.id)
    if talk.ready != answer.connection:
        control.lose("the connection was lost")
    talk.update()


def give_back(talk: Conversation, timeout: float) -> Steps[VorlinError | None]:
    """Leaves a block; the last one gives control back. Returns what went wrong, for the caller to raise or not."""
    control = talk.control
    held = control.leave()
    if not control.blocks and control.lost:
        talk.log.warning("exclusive control of %s was gone before it was given back: %s", talk.host, control.lost)
    talk.update()
    if not held or talk.ready != control.connection:
        return None
    error = yield from _release(talk, timeout)
    if error is not None:
        log_failure(talk, error)
    return error


def _release(talk: Conversation, timeout: float) -> Steps[VorlinError | None]:
    connection, name = talk.ready, "ReleaseExclusiveControl"
    outcome = yield from ask(talk, Ask(RELEASE, b"", timeout, connection))
    if outcome[0] == link.OK:
        code = int.from_bytes(outcome[2][:2], "big")
        return _refused(talk, code) if code else None
    settle(talk, RELEASE, connection, outcome)
    return None if outcome[0] == link.TRANSPORT else failure(name, talk.host, outcome, timeout)
