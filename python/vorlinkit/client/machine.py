"""The typed client for threads: `connect`, and the `Machine` that it returns."""

from __future__ import annotations

import weakref
from collections.abc import Callable
from types import TracebackType
from typing import Any, Self

from . import backend
from .calls import call, call_of
from .control_block import ExclusiveControl
from .conversation import LateAnswerPolicy, MachineEvent, Options
from .dispatcher import ErrorHandler
from .errors import DecodeError, MachineWarning
from .handshake import connect as first_connection
from .keeper import Keeper
from .link import Link, LinkOptions
from .listening import asks
from .methods import Methods, SubscribeMethods
from .options import options_of, patience
from .plan import N, Plan, R
from .raw import raw_notifications, raw_plan
from .subscribing import subscribe, unsubscribe
from .subscription import Inbox, Subscription


def connect(
    host: str,
    port: int = 50713,
    *,
    timeout: float = 15.0,
    connect_timeout: float = 3.0,
    client_id: bool = True,
    reconnect: bool = True,
    reconnect_delay: float = 0.5,
    reconnect_delay_max: float = 30.0,
    retry_reads: int = 1,
    late_answers: LateAnswerPolicy = "fence",
    idle_check: float = 10.0,
    on_event: Callable[[MachineEvent], object] | None = None,
    on_handler_error: ErrorHandler | None = None,
) -> Machine:
    """Connect to a machine's control server, and return when calls can be made. Times are in seconds.

    timeout: how long the machine may take to answer a request; each call can be given another.
    connect_timeout: how long one attempt to connect may take, name look-up included.
    client_id: ask for a client id on every connection, before anything else.
    reconnect: make a new connection when one was lost, after `reconnect_delay`, and ever less often up to every
    `reconnect_delay_max`. The first connection is tried once.
    retry_reads: how often a command that changes nothing is sent again when the connection was lost meanwhile, within
    its time-out. Commands that change something are never repeated.
    late_answers: after a time-out, "fence" asks a harmless command before the same one is asked again, so that a late
    answer cannot be taken for the answer to it; "reconnect" makes a new connection instead; "ignore" does nothing.
    idle_check: after that long without traffic the machine is asked whether it is still there; 0 for never.
    on_event: called with each `Lost` and `Restored`, instead of iterating over `Machine.events`.
    on_handler_error: called with what a handler of a subscription raised; it is logged in any case.

    Raises ConnectError.
    """
    options, link_options = options_of(
        host,
        port,
        timeout,
        connect_timeout,
        client_id,
        reconnect,
        reconnect_delay,
        reconnect_delay_max,
        retry_reads,
        late_answers,
        idle_check,
    )
    return open_machine(options, link_options, on_event, on_handler_error)


def open_machine(
    options: Options,
    link_options: LinkOptions,
    on_event: Callable[[MachineEvent], object] | None = None,
    on_handler_error: ErrorHandler | None = None,
    make_link: Callable[[LinkOptions], Link] = backend.make_link,
) -> Machine:
    """`connect` with everything said; raises ConnectError."""
    keeper = Keeper(options, link_options, make_link)
    keeper.dispatcher.on_error = on_handler_error
    keeper.events.set_handler(on_event)
    try:
        keeper.decide(first_connection(keeper.talk, link_options.connect_timeout + options.timeout))
    except BaseException:
        keeper.close("the first connection could not be made")
        raise
    return Machine(keeper)


class Machine(Methods):
    """A machine that is connected: one method per command, and what belongs to the connection as a whole.

    Any thread may call it, also handlers of its subscriptions. Calls wait for the machine's answer. Used as a context
    manager it is closed at the end.
    """

    def __init__(self, keeper: Keeper) -> None:
        """Use `connect`."""
        self._keeper = keeper
        self._talk = keeper.talk
        self._slots = keeper.slots
        self._request = keeper.link.request
        self._timeout = keeper.talk.options.timeout
        weakref.finalize(self, keeper.abandon).atexit = False

    def __repr__(self) -> str:
        talk = self._talk
        state = f"closed: {talk.closed}" if talk.closed else "connected" if talk.ready else "not connected"
        return f"<vorlinkit.Machine {self.host}:{self.port}, {state}>"

    @property
    def host(self) -> str:
        return self._talk.host

    @property
    def port(self) -> int:
        return self._talk.options.port

    @property
    def connected(self) -> bool:
        """Whether calls go out: there is a connection, and what has to be asked on it first was asked."""
        return self._talk.ready != 0

    @property
    def client_id(self) -> int:
        """The id that the machine gave this connection, 1 to 255; 0 while there is none."""
        return self._keeper.link.client_id()

    @property
    def last_warning(self) -> MachineWarning | None:
        """What the machine last warned of (minorError) while it carried out a request; it is logged, too."""
        return self._talk.last_warning

    @property
    def events(self) -> Inbox[MachineEvent]:
        """`Lost` and `Restored`, as they happen: iterate over them, on a thread of your own. The newest 1,000 wait to
        be taken. There is one such stream per machine."""
        return self._keeper.events

    @property
    def subscribe(self) -> Subscribe:
        """Notifications: `with machine.subscribe.get_motor_position("AD1", 1) as positions: ...`."""
        return Subscribe(self)

    def exclusive_control(
        self, *, user: str | None = None, force: bool = False, timeout: float | None = None
    ) -> ExclusiveControl:
        """A `with` block in which this client has exclusive control of the machine, and gives it back at the end.

        user: take it under this name. force: take it away from whoever has it. Control belongs to the connection: when
        either is lost, every further call that changes the machine raises ControlLost and is not sent, until the block
        is left. Entering raises CommandRefused while another client has control. Blocks may be nested.
        """
        return ExclusiveControl(self._keeper, user, force, self._seconds(timeout))

    def request(self, command_id: int, payload: bytes = b"", *, timeout: float | None = None) -> bytes:
        """Send any command as bytes, and return the response's payload: for what the catalogue does not know.

        A command that the catalogue does not know counts as one that changes the machine. A CommandError is in the
        payload, and not looked at. Raises as every call does.
        """
        plan = raw_plan(command_id)
        return self._ask(plan, (), bytes(payload), self._seconds(timeout), False)

    def listen(
        self, command_id: int, *, handler: Callable[[bytes], object] | None = None, buffer: int = 1000
    ) -> Subscription[bytes]:
        """The payloads of all notifications of a command, as bytes. Nothing is sent to ask for them."""
        return self.subscribe._subscribe(raw_notifications(command_id), (), handler, buffer, None)

    def close(self) -> None:
        """End the connection. Every call and iteration that waits ends, too; calls raise Closed from now on. Any
        thread may close, also a handler, and more than once."""
        self._keeper.close("the machine object was closed")

    def __enter__(self) -> Self:
        self._talk.check_open("nothing")
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()

    def _seconds(self, timeout: float | None) -> float:
        return self._timeout if timeout is None else patience(timeout)

    def _call(self, plan: Plan[R, N], values: tuple[Any, ...], timeout: float | None, check: bool) -> R:
        seconds = self._timeout if timeout is None else patience(timeout)
        return self._ask(plan, values, plan.encode(values), seconds, check)

    def _ask(
        self, plan: Plan[R, N], values: tuple[Any, ...], payload: bytes, timeout: float, check: bool
    ) -> R:
        """The common call goes out at once and is answered; whatever is different is decided in `calls`."""
        talk = self._talk
        with self._slots[plan.id]:
            connection, sent = talk.clear, None
            if connection:
                try:
                    outcome = self._request(plan.id, payload, timeout, connection)
                except BaseException:
                    self._keeper.interrupted(plan.id)
                    raise
                if not (outcome[0] or outcome[4]):
                    try:
                        response = plan.decode_response(outcome[2])
                        if plan.echoes(values, response) and not (check and plan.command_error(response)):
                            talk.answers += 1
                            return response
                    except DecodeError:
                        pass  # raised below, as a decision
                sent = connection, tuple(outcome)
            wanted = call_of(talk, plan, values, payload, timeout, check)
            result: R = self._keeper.decide(call(talk, wanted, sent)).response
            return result


class Subscribe(SubscribeMethods):
    """The notifications of a machine, one method per command that has any."""

    def __init__(self, machine: Machine) -> None:
        self._machine = machine

    def _subscribe(
        self,
        plan: Plan[R, N],
        values: tuple[Any, ...],
        handler: Callable[[N], object] | None,
        buffer: int,
        timeout: float | None,
    ) -> Subscription[N]:
        keeper, seconds = self._machine._keeper, self._machine._seconds(timeout)
        values = plan.settled(values)
        payload = plan.encode(values) if asks(plan) else b""
        subscription: Subscription[N] = Subscription(
            f"the subscription of {plan.name}", buffer, handler, keeper.dispatcher, self._cancel
        )
        keeper.link.watch(plan.id)
        with keeper.slots[plan.id]:
            steps = subscribe(keeper.talk, plan, values, payload, seconds, subscription)
            subscription.topic = keeper.decide(steps)
        return subscription

    def _cancel(self, subscription: Subscription[Any]) -> None:
        keeper, topic = self._machine._keeper, subscription.topic
        if topic is None or keeper.talk.closed:
            return
        with keeper.slots[topic.plan.id]:
            keeper.decide(unsubscribe(keeper.talk, topic, subscription, self._machine._timeout))
