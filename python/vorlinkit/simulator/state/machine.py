"""The simulated machine: what it is asked becomes what it answers, without a socket in sight.

A request is checked (header, client id, control), decoded, answered by the component that knows the command, or
else from memory and from the layout, and completed to a whole payload. Everything runs on one thread, the event
loop's.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass, field

from vorlinkit.catalogue import Catalogue, Command
from vorlinkit.wire import frames
from vorlinkit.wire.coder import PayloadError, decode, encode
from vorlinkit.wire.frames import MajorError, MinorError, RequestFrame
from vorlinkit.wire.records import Known, Record, number

from ..answer import Answer
from .clock import Clock
from .component import Handler
from .components import all_components
from .memory import Memory
from .pictures import PictureSize
from .plausible import Plausible
from .presets import COMMAND_ERROR, Presets, carries
from .rights import is_open_to_all, needs_control
from .stages import stages
from .subscriptions import (
    Client,
    Subscription,
    matching,
    subscribe,
    subscribing_level,
    unsubscribe,
)


@dataclass(frozen=True)
class MachineOptions:
    """How strict the machine is and how it notifies."""

    strict_control: bool = False
    strict_client_id: bool = False
    notify_at_once: bool = True
    prefer: tuple[str, ...] = ()
    blob_size: int = 64
    picture: PictureSize = PictureSize()


@dataclass
class Reply:
    """A request carried out: the answer's parts before anything goes wrong with them."""

    answer: Answer
    command: Command | None = None
    request: Record = field(default_factory=dict)
    response: Record = field(default_factory=dict)
    known: Known = field(default_factory=dict)
    carried_out: bool = False


class Machine:
    """State and answers of the simulated machine."""

    def __init__(self, catalogue: Catalogue, options: MachineOptions, clock: Clock) -> None:
        self.catalogue = catalogue
        self.options = options
        self.clock = clock
        self.clients: list[Client] = []
        self.plausible = Plausible(clock.now, options.blob_size, options.picture)
        self._memory = Memory(catalogue)
        self._presets = Presets()
        self._by_id = {command.id: command for command in reversed(catalogue.commands)}
        self._by_id.update({catalogue.named(name).id: catalogue.named(name) for name in options.prefer})
        self._handlers: dict[str, Handler] = {}
        self._only_on_events: set[str] = set()
        self._leaving: list[Callable[[Client], None]] = []
        self._stopping: list[Callable[[], None]] = []
        self._restarting: list[Callable[[], None]] = []
        self._movers: list[Callable[[], bool]] = []
        self.motion_wanted: Callable[[], None] = lambda: None
        self.holder: Client | None = None
        for component in all_components(self):
            self._handlers.update(component.handlers())
        # A component that answers a command whose notifications come unasked tells of the event itself.
        self.only_on_events(
            *(one.name for one in catalogue.commands if one.unasked and one.name in self._handlers)
        )

    # --- what components use ----------------------------------------------------------------------

    def on_leaving(self, action: Callable[[Client], None]) -> None:
        """Have ``action`` called for every client that leaves."""
        self._leaving.append(action)

    def on_stopping(self, action: Callable[[], None]) -> None:
        """Have ``action`` called once before the machine stops."""
        self._stopping.append(action)

    def on_restarting(self, action: Callable[[], None]) -> None:
        """Have ``action`` called whenever the machine starts anew."""
        self._restarting.append(action)

    def every_motor_interval(self, move: Callable[[], bool]) -> None:
        """Have ``move`` called at motor intervals while something moves; it says whether more is to come."""
        self._movers.append(move)

    def wake_motors(self) -> None:
        """Something has to move."""
        self.motion_wanted()

    def only_on_events(self, *names: str) -> None:
        """These notifications are sent when something happens, never just for having been subscribed."""
        self._only_on_events.update(names)

    def changed(self, name: str, address: Known | None = None, extra: Known | None = None) -> None:
        """Tell everyone who subscribed to this object; ``extra`` are values for the notification alone."""
        self._presets.object_changed(name, address or {})
        self._report_object(name, address or {}, extra or {})

    def tell(self, client: Client, name: str, values: Known) -> None:
        """Send one notification of this command to one client, if the catalogue has such a notification."""
        for command in self.catalogue.commands:
            if command.name == name and command.notification is not None:
                client.deliver(self.notification(command, values))

    # --- what the connections use -----------------------------------------------------------------

    def command_with_id(self, command_id: int) -> Command | None:
        return self._by_id.get(command_id)

    def enter(self, client: Client) -> None:
        """A client has connected."""
        self.clients.append(client)

    def leave(self, client: Client) -> None:
        """A client is gone: what it held and wanted is released."""
        if client in self.clients:
            self.clients.remove(client)
        client.subscriptions.clear()
        for action in self._leaving:
            action(client)

    def stop(self) -> None:
        """The machine is about to stop: whoever subscribed to its status is told."""
        for action in self._stopping:
            action()

    def restart(self) -> None:
        """The machine starts anew: settings stay, what belongs to clients is gone."""
        for client in list(self.clients):
            self.leave(client)
        for action in self._restarting:
            action()

    def preset(self, command: Command, address: Record, values: Record) -> None:
        """Have the answers about an object hold these values, and tell who subscribed to it if it is in their
        notifications.

        They hold until a client sets that object otherwise.
        """
        self._presets.set(command, address, values)
        self._memory.forget_entries(command, values)
        if carries(command.notification, values):
            self._report_object(command.name, address, {})

    def move(self) -> bool:
        """Let one motor interval pass; says whether anything is still on its way."""
        return any([mover() for mover in self._movers])

    def report_all(self) -> int:
        """Repeat every subscription's notification as things stand now; says how many were sent.

        A client that has stopped reading is passed over, or what waits for it would grow without end.
        """
        sent = 0
        for client in self.clients:
            if client.lags():
                continue
            for subscription in list(client.subscriptions):
                if subscription.command.name not in self._only_on_events:
                    self._report(client, subscription, {})
                    sent += 1
        return sent

    def answer(self, client: Client, frame: RequestFrame, carry_out: bool = True) -> Reply:
        """Carry out one request; without ``carry_out`` it is answered and changes nothing."""
        command = self.command_with_id(frame.command_id)
        major = self._protocol_errors(client, frame, command)
        minor = 0 if frame.version == frames.VERSION else int(MinorError.UnknownRequestVersion)
        request: Record = {}
        if not major and command is not None and command.request is not None:
            try:
                request, left_over = decode(command.request.fields, frame.payload)
                major = int(MajorError.DataLengthMismatch) if left_over else 0
            except PayloadError:
                major = int(MajorError.DataLengthMismatch)
        elif not major and frame.payload:
            major = int(MajorError.DataLengthMismatch)
        if major or command is None:
            return Reply(Answer(frame.command_id, major_error=major, minor_error=minor), command)
        if command.response is None:
            return Reply(Answer(command.id, minor_error=minor), command, request, carried_out=carry_out)
        preset = self._presets.of(command, request)
        carry_out = carry_out and number(preset, COMMAND_ERROR) == 0
        if carry_out:
            known = {**self._carried_out(client, command, request), **self._presets.of(command, request)}
        else:
            # What only reads may be asked all the same; its values are the machine's.
            handled = command.effect == "change" and command.name in self._handlers
            known = {**({} if handled else self._known(client, command, request)), **preset}
        response = self._completed(command, known, request)
        answer = Answer(
            command_id=command.id,
            payload=encode(command.response.fields, response),
            minor_error=minor,
            has_command_error=next(iter(response), "") == COMMAND_ERROR,
        )
        return Reply(answer, command, request, response, known, carry_out)

    def follow_up(self, client: Client, reply: Reply) -> None:
        """What comes behind an answer: the subscription it made, and the notification that goes with it."""
        command = reply.command
        if command is None or command.notification is None or not reply.carried_out:
            return
        level = subscribing_level(command, reply.request)
        if level == 0:
            unsubscribe(client, command, reply.request)
        if level == 0 or number(reply.response, COMMAND_ERROR) != 0:
            return
        if level is not None:
            subscribe(client, command, reply.request)
        only_asked = level is not None and command.effect == "read"
        if command.name in self._only_on_events or (only_asked and not self.options.notify_at_once):
            return
        # What a component answers is done at once; all other tasks take their time.
        for stage in ({},) if command.name in self._handlers else stages(command):
            client.deliver(self.notification(command, stage, reply.known, reply.request, reply.response))

    def notification(self, command: Command, *known: Known) -> bytes:
        """A whole notification frame of a command, completed from what is known."""
        fields = command.notification.fields if command.notification is not None else ()
        return frames.notification(
            command.id, encode(fields, self.plausible.complete(fields, *known, _first_codes(command)))
        )

    # --- how it is done ---------------------------------------------------------------------------

    def _carried_out(self, client: Client, command: Command, request: Record) -> Known:
        """Carry a request out; returns what is known of its answer."""
        known = self._known(client, command, request)
        if command.effect == "change" and number(known, COMMAND_ERROR) == 0:
            self._presets.carried_out(command, request)
            if command.name not in self._handlers:
                self._remember(command, request)
                known = self._known(client, command, request)
        return known

    def _protocol_errors(self, client: Client, frame: RequestFrame, command: Command | None) -> int:
        """What is wrong with a request before its payload is looked at."""
        if frame.message_type != frames.REQUEST:
            return MajorError.UnexpectedHeaderType
        flags = MajorError(0)
        if frame.header_length != frames.REQUEST_HEADER.size - frames.START_SIZE:
            flags |= MajorError.HeaderLengthIncorrect
        if frame.access_key != frames.ACCESS_KEY:
            flags |= MajorError.AccessKeyIncorrect
        if command is None:
            flags |= MajorError.UnsupportedCommandId
        if frame.client_id != client.id and frame.client_id != 0:
            flags |= MajorError.IncorrectClientId
        elif frame.client_id == 0 and self.options.strict_client_id and not is_open_to_all(command):
            flags |= MajorError.ClientIdRequired
        if command is not None and self.options.strict_control and needs_control(command):
            if self.holder is not client:
                flags |= MajorError.ExclusiveControlRequired
                flags |= MajorError.ControlBlocked if self.holder is not None else MajorError(0)
        return flags

    def _remember(self, command: Command, request: Record) -> None:
        for name, address in self._memory.remember(command, request):
            self._presets.object_changed(name, address, entries_only=True)
            self._report_object(name, address, {})

    def _completed(self, command: Command, known: Known, request: Record) -> Record:
        fields = command.response.fields if command.response is not None else ()
        response = self.plausible.complete(fields, known, request, _first_codes(command))
        self._memory.overlay(command, response, request)
        return response

    def _known(self, client: Client, command: Command, request: Record) -> Known:
        handler = self._handlers.get(command.name)
        return handler(client, request) if handler is not None else self._memory.recall(command, request)

    def _report_object(self, name: str, address: Known, extra: Known) -> None:
        for client, subscription in matching(self.clients, name, address):
            self._report(client, subscription, extra)

    def _report(self, client: Client, subscription: Subscription, extra: Known) -> None:
        """Send a subscriber how things stand now: what the same request would be answered with."""
        command, request = subscription.command, subscription.request
        # Only a question may be asked again; a change is not made twice for the sake of a report.
        known = (
            self._known(client, command, request)
            if command.effect == "read"
            else self._memory.recall(command, request)
        )
        known = {**known, **self._presets.of(command, request)}
        response = self._completed(command, known, request)
        client.deliver(self.notification(command, extra, known, request, response))


def _first_codes(command: Command) -> Record:
    """A value with a meaning for each coded field."""
    return {key: rows[0].code for key, rows in command.coded.items() if rows}


def disclaimer(catalogue: Catalogue) -> Sequence[str]:
    """What the simulator says of itself when it starts: that it is none, and how sure the layouts are."""
    standings = catalogue.standings()
    confirmed, at_site, assumed = (
        standings.get(one, 0) for one in ("confirmed", "site-confirmed", "assumed")
    )
    return (
        "This is a simulator, not a machine: no answer below comes from a real one.",
        f"Of {sum(standings.values())} payload layouts {confirmed} are confirmed, "
        f"{at_site} were confirmed at a site and {assumed} are assumed.",
        "Only confirmed layouts are certain; an assumed one may differ from your machine's. "
        "Values are made up.",
    )
