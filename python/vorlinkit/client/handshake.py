"""Decisions about a connection: what is asked on a new one before any call goes out, and how the first one is made."""

from __future__ import annotations

from typing import Final

from vorlinkit.wire.frames import MajorError

from . import link
from .actions import Ask, AwaitChange, Connect, GiveUp, Steps
from .calls import Call, decoded, judged
from .conversation import Conversation
from .errors import Closed, ConnectError, VorlinError
from .failures import failure
from .listening import Topic

GET_CLIENT_ID: Final = 1
CLIENT_ID_SIZE: Final = 1  # byte


def handshake(talk: Conversation, connection: int) -> Steps[None]:
    """The client id, then the subscriptions; then calls go out. Ends early when the connection does."""
    if talk.options.client_id and not (yield from _get_client_id(talk, connection)):
        return
    renewed: list[str] = []
    failed: dict[str, VorlinError] = {}
    for topic in [topic for topic in talk.topics if topic.confirmed and topic.renewable]:
        error = yield from _renew(talk, topic, connection)
        if talk.up != connection:
            return
        if error is None:
            renewed.append(str(topic))
            continue
        failed[str(topic)] = error
        talk.log.warning("the subscription %s has ended: %s", topic, error)
        talk.topics.drop(topic)
        for listener in topic.listeners:
            listener.end(error)
    talk.restored(renewed, failed)


def _get_client_id(talk: Conversation, connection: int) -> Steps[bool]:
    """Whether the handshake goes on. An answer that cannot be right is asked for once more."""
    timeout, reason = talk.options.timeout, ""
    for _ in range(2):
        outcome = yield Ask(GET_CLIENT_ID, b"", timeout, connection)
        if talk.up != connection or outcome[0] in (link.TRANSPORT, link.STOPPED):
            return False
        if outcome[0] == link.TIMEOUT:
            return (yield from _unanswered(talk))
        if outcome[0] != link.OK:
            reason = str(failure("GetClientId", talk.host, outcome, timeout))
            if outcome[3] & MajorError.UnsupportedCommandId:
                break
        elif len(outcome[2]) == CLIENT_ID_SIZE:
            return True
        else:
            reason = (
                f"GetClientId: {talk.host} answered {outcome[2].hex() or 'nothing'}, which is no client id"
            )
    if not talk.was_ready and not outcome[3] & MajorError.UnsupportedCommandId:
        talk.fail(f"{reason} (client_id=False does without)")
        return False
    talk.log.warning("going on without a client id: %s", reason)
    return True


def _unanswered(talk: Conversation) -> Steps[bool]:
    timeout = talk.options.timeout
    if talk.was_ready:
        talk.lost(f"given up, as GetClientId was not answered within {timeout:g} s")
        yield GiveUp()
    else:
        talk.fail(f"it accepts connections, but answers nothing within {timeout:g} s; is it a VORLIN server?")
    return False


def _renew(talk: Conversation, topic: Topic, connection: int) -> Steps[VorlinError | None]:
    plan, timeout = topic.plan, talk.options.timeout
    outcome = yield Ask(plan.id, topic.payload, timeout, connection)
    if outcome[0] != link.OK:
        if outcome[0] == link.TIMEOUT:
            talk.doubt(plan.id)
        return failure(plan.name, talk.host, outcome, timeout)
    try:
        response = decoded(talk, plan, outcome[2])
        wanted = Call(plan, topic.values, topic.payload, timeout)
        topic.response = judged(talk, wanted, response, outcome[4])
    except VorlinError as error:
        return error
    return None


def connect(talk: Conversation, timeout: float) -> Steps[None]:
    """The first connection, with its handshake. Raises ConnectError."""
    where = f"{talk.host}:{talk.options.port}"
    outcome = yield Connect()
    if outcome[0] != link.OK:
        raise ConnectError(f"no connection to {where}: {outcome[1]}", reason=outcome[1])
    deadline = talk.clock() + timeout
    while not talk.ready:
        if talk.closed:
            raise Closed(f"connecting to {where} was given up: {talk.closed}")
        left = deadline - talk.clock()
        if talk.failed or left <= 0:
            reason = talk.failed or f"the handshake was not done within {timeout:g} s"
            raise ConnectError(f"no connection to {where}: {reason}", reason=reason)
        yield AwaitChange(talk.version, left)
