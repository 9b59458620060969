"""Decisions about exclusive control: taking it for a block of calls, and giving it back."""

from __future__ import annotations

from typing import Any

from . import plans
from .actions import Steps
from .calls import Call, call
from .conversation import Conversation
from .errors import VorlinError
from .plan import Plan


def control_plan(user: str | None, force: bool) -> tuple[Plan[Any, Any], tuple[Any, ...]]:
    """The command that takes control so, and its values."""
    if user is not None:
        if force:
            return plans.FORCED_GET_EXCLUSIVE_CONTROL_WITH_USER, (user,)
        return plans.GET_EXCLUSIVE_CONTROL_WITH_USER, (user,)
    return (plans.FORCED_GET_EXCLUSIVE_CONTROL, ()) if force else (plans.GET_EXCLUSIVE_CONTROL, ())


def take_control(
    talk: Conversation, plan: Plan[Any, Any], values: tuple[Any, ...], timeout: float
) -> Steps[None]:
    """Enters a block. A block inside another one, or beside it on another thread, shares its control."""
    control = talk.control
    control.check(plan.name, talk.host)
    if control.blocks:
        control.blocks += 1
        return
    control.take(plan.id)
    answer = yield from call(talk, Call(plan, values, plan.encode(values), timeout))
    if control.blocks:  # another thread has been quicker; the machine gave control to both, as one client
        control.blocks += 1
    else:
        control.taken(answer.connection)
    if talk.ready != answer.connection:
        control.lose("the connection was lost")
    talk.update()


def give_back(talk: Conversation, plan: Plan[Any, Any], timeout: float) -> Steps[VorlinError | None]:
    """Leaves a block; the last one gives control back. Returns what went wrong, for the caller to raise or not."""
    control = talk.control
    held = control.leave()
    if not control.blocks and control.lost:
        talk.log.warning(
            "exclusive control of %s was gone before it was given back: %s", talk.host, control.lost
        )
    talk.update()
    if not held or talk.ready != control.connection:
        return None  # a machine gives control back by itself when the connection of its holder ends
    try:
        yield from call(talk, Call(plan, (), b"", timeout))
    except VorlinError as error:
        return None if talk.ready != control.connection else error
    return None
