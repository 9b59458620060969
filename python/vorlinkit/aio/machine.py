"""The typed client for asyncio."""

from __future__ import annotations

from collections.abc import Callable, Generator
from types import TracebackType
from typing import Any, Self

from vorlinkit.client import backend, plans
from vorlinkit.client.calls import call, call_of
from vorlinkit.client.controlling import control_plan, give_back, take_control
from vorlinkit.client.conversation import LateAnswerPolicy, MachineEvent, Options
from vorlinkit.client.errors import DecodeError, MachineWarning
from vorlinkit.client.handshake import connect as first_connection
from vorlinkit.client.link import Link, LinkOptions
from vorlinkit.client.listening import Topic, asks
from vorlinkit.client.options import options_of, patience
from vorlinkit.client.plan import N, Plan, R
from vorlinkit.client.raw import raw_notifications, raw_plan
from vorlinkit.client.subscribing import subscribe, unsubscribe

from .keeper import Keeper
from .methods import Methods, SubscribeMethods
from .subscription import ErrorHandler, Inbox, Subscription


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
) -> Connecting:
    """Connect to a machine: `async with connect(...) as machine:`, or `machine = await connect(...)`.

    The parameters are those of `vorlinkit.connect`. `on_event` may be a coroutine function. Raises ConnectError when it
    is awaited.
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
    return Connecting(options, link_options, on_event, on_handler_error)


class Connecting:
    """What `connect` returns: the connection is made when it is awaited or entered."""

    def __init__(
        self,
        options: Options,
        link_options: LinkOptions,
        on_event: Callable[[MachineEvent], object] | None = None,
        on_handler_error: ErrorHandler | None = None,
        make_link: Callable[[LinkOptions], Link] = backend.make_link,
    ) -> None:
        self._options = options
        self._link_options = link_options
        self._on_event = on_event
        self._on_handler_error = on_handler_error
        self._make_link = make_link
        self._machine: Machine | None = None

    def __await__(self) -> Generator[Any, None, Machine]:
        return self._open().__await__()

    async def __aenter__(self) -> Machine:
        self._machine = await self._open()
        return self._machine

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        if self._machine is not None:
            await self._machine.close()

    async def _open(self) -> Machine:
        keeper = Keeper(self._options, self._link_options, self._make_link)
        keeper.handlers.on_error = self._on_handler_error
        keeper.events.set_handler(self._on_event)
        timeout = self._link_options.connect_timeout + self._options.timeout
        try:
            await keeper.decide(first_connection(keeper.talk, timeout))
        except BaseException:
            await keeper.close("the first connection could not be made")
            raise
        return Machine(keeper)


class Machine(Methods):
    """A machine that is connected: one method per command, and what belongs to the connection as a whole.

    It belongs to the event loop on which it was made. Cancelling a task that waits for an answer frees it at once; a
    request that was sent cannot be called back. Used as an asynchronous context manager it is closed at the end.
    """

    def __init__(self, keeper: Keeper) -> None:
        """Use `connect`."""
        self._keeper = keeper
        self._talk = keeper.talk
        self._slots = keeper.slots
        self._timeout = keeper.talk.options.timeout

    def __repr__(self) -> str:
        talk = self._talk
        state = f"closed: {talk.closed}" if talk.closed else "connected" if talk.ready else "not connected"
        return f"<vorlinkit.aio.Machine {self.host}:{self.port}, {state}>"

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
        """`Lost` and `Restored`, as they happen, for `async for`. The newest 1,000 wait to be taken. There is one such
        stream per machine."""
        return self._keeper.events

    @property
    def subscribe(self) -> Subscribe:
        """Notifications: `async with machine.subscribe.get_motor_position("AD1", 1) as positions: ...`."""
        return Subscribe(self)

    def exclusive_control(
        self, *, user: str | None = None, force: bool = False, timeout: float | None = None
    ) -> ExclusiveControl:
        """An `async with` block in which this client has exclusive control of the machine, and gives it back at the
        end.

        user: take it under this name. force: take it away from whoever has it. Control belongs to the connection: when
        either is lost, every further call that changes the machine raises ControlLost and is not sent, until the block
        is left. Entering raises CommandRefused while another client has control. Blocks may be nested.
        """
        return ExclusiveControl(self._keeper, user, force, self._seconds(timeout))

    async def request(self, command_id: int, payload: bytes = b"", *, timeout: float | None = None) -> bytes:
        """Send any command as bytes, and return the response's payload: for what the catalogue does not know.

        A command that the catalogue does not know counts as one that changes the machine. A CommandError is in the
        payload, and not looked at. Raises as every call does.
        """
        plan = raw_plan(command_id)
        return await self._ask(plan, (), bytes(payload), self._seconds(timeout), False)

    def listen(
        self, command_id: int, *, handler: Callable[[bytes], object] | None = None, buffer: int = 1000
    ) -> Subscription[bytes]:
        """The payloads of all notifications of a command, as bytes. Nothing is sent to ask for them."""
        return self.subscribe._subscribe(raw_notifications(command_id), (), handler, buffer, None)

    async def close(self) -> None:
        """End the connection. Every call and iteration that waits ends, too; calls raise Closed from now on. A handler
        may close, and it may be done more than once."""
        await self._keeper.close("the machine object was closed")

    async def __aenter__(self) -> Self:
        self._talk.check_open("nothing")
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        await self.close()

    def _seconds(self, timeout: float | None) -> float:
        return self._timeout if timeout is None else patience(timeout)

    async def _call(self, plan: Plan[R, N], values: tuple[Any, ...], timeout: float | None, check: bool) -> R:
        seconds = self._timeout if timeout is None else patience(timeout)
        return await self._ask(plan, values, plan.encode(values), seconds, check)

    async def _ask(
        self, plan: Plan[R, N], values: tuple[Any, ...], payload: bytes, timeout: float, check: bool
    ) -> R:
        """The common call goes out at once and is answered; whatever is different is decided in `calls`."""
        talk, keeper, slots = self._talk, self._keeper, self._slots
        if not slots.take_free(plan.id):
            await slots.enter(plan.id)
        try:
            connection, sent = talk.clear, None
            if connection:
                outcome = await keeper.ask(plan.id, payload, timeout, connection, True)
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
            answer = await keeper.decide(call(talk, wanted, sent), plan.id)
            result: R = answer.response
            return result
        finally:
            slots.leave(plan.id)


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
        settled = plan.settled(values)
        payload = plan.encode(settled) if asks(plan) else b""

        async def start(subscription: Subscription[Any]) -> Topic:
            keeper.link.watch(plan.id)
            await keeper.slots.enter(plan.id)
            try:
                steps = subscribe(keeper.talk, plan, settled, payload, seconds, subscription)
                return await keeper.decide(steps, plan.id)
            finally:
                keeper.slots.leave(plan.id)

        name = f"the subscription of {plan.name}"
        return Subscription(name, buffer, handler, keeper.handlers, start, self._cancel)

    async def _cancel(self, subscription: Subscription[Any]) -> None:
        keeper, topic = self._machine._keeper, subscription.topic
        if topic is None or keeper.talk.closed:
            return
        await keeper.slots.enter(topic.plan.id)
        try:
            steps = unsubscribe(keeper.talk, topic, subscription, self._machine._timeout)
            await keeper.decide(steps, topic.plan.id)
        finally:
            keeper.slots.leave(topic.plan.id)


class ExclusiveControl:
    """An `async with` block in which this program alone may change the machine. Made by `Machine.exclusive_control`."""

    def __init__(self, keeper: Keeper, user: str | None, force: bool, timeout: float) -> None:
        self._keeper = keeper
        self._plan, self._values = control_plan(user, force)
        self._timeout = timeout

    @property
    def lost(self) -> str:
        """Why control is gone, "" as long as it is there."""
        return self._keeper.talk.control.lost

    async def __aenter__(self) -> Self:
        keeper, plan = self._keeper, self._plan
        keeper.link.watch(plan.id)
        await keeper.slots.enter(plan.id)
        try:
            await keeper.decide(take_control(keeper.talk, plan, self._values, self._timeout), plan.id)
        finally:
            keeper.slots.leave(plan.id)
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        keeper, plan = self._keeper, plans.RELEASE_EXCLUSIVE_CONTROL
        await keeper.slots.enter(plan.id)
        try:
            failure = await keeper.decide(give_back(keeper.talk, plan, self._timeout), plan.id)
        finally:
            keeper.slots.leave(plan.id)
        if failure is not None and error is None:
            raise failure
