"""Decisions about subscriptions: several to one object share one request, and the last one to go ends it."""

from __future__ import annotations

from typing import Any

from .actions import Steps
from .calls import Call, call, call_of
from .conversation import Conversation
from .errors import VorlinError
from .listening import Listener, Topic
from .plan import Plan


def subscribe(
    talk: Conversation,
    plan: Plan[Any, Any],
    values: tuple[Any, ...],
    payload: bytes,
    timeout: float,
    listener: Listener,
) -> Steps[Topic]:
    """Has the machine notify; returns when it has agreed, and raises as a call does when it has not.

    A command that changes the machine is asked each time, and never again by itself.
    """
    talk.check_open(plan.name)
    topic = talk.topics.find(plan, values) or Topic(plan, values)
    talk.topics.add(topic, listener)  # ahead of the request: the first notification may come with the answer
    if not topic.asks or (topic.confirmed and topic.values == values):
        return topic
    try:
        while True:
            answer = yield from call(talk, call_of(talk, plan, values, payload, timeout))
            # On a connection that has come since nobody would have renewed this one.
            if not topic.renewable or talk.up in (0, answer.connection):
                break
    except BaseException:
        talk.topics.remove(topic, listener)
        raise
    topic.values, topic.payload, topic.response = values, payload, answer.response
    topic.confirmed = True
    return topic


def unsubscribe(talk: Conversation, topic: Topic, listener: Listener, timeout: float) -> Steps[None]:
    """The end of one subscription. What goes wrong is logged: its user is done with it."""
    plan = topic.plan
    if (
        not talk.topics.remove(topic, listener)
        or plan.subscribes < 0
        or not topic.renewable
        or not talk.ready
    ):
        return
    values = plan.with_level(topic.values, 0)
    try:
        yield from call(talk, Call(plan, values, plan.encode(values), timeout))
    except VorlinError as error:
        talk.log.warning("the end of the subscription %s was not confirmed: %s", topic, error)
