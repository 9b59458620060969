"""What the client relies on in a connection, whichever link it has."""

import contextlib
import os
import queue
import select
import signal
import threading
import time
from importlib import import_module

import pytest
from fake_server import echo, echo_behind, read_request, run_script, serving, silence
from vorlinkit.client.link import (
    LOG,
    NOTIFICATION,
    OK,
    PROTOCOL,
    REPLY,
    STATE,
    STOPPED,
    TIMEOUT,
    TRANSPORT,
    LinkOptions,
    Outcome,
)
from vorlinkit.wire.frames import MajorError, notification, response

WAIT = 5  # seconds an awaited event may take before the test gives up
LATE = 0.3  # seconds until a wait is interrupted
LINKS = {"native": "vorlinkit.client.native_link:NativeLink"}


@pytest.fixture(params=LINKS)
def kind(request):
    module, name = LINKS[request.param].split(":")
    return getattr(import_module(module), name)


class User:
    """A link, and all its events in order."""

    def __init__(self, kind, port, **options):
        settings = {"reconnect": False, **options}
        self.link = kind(LinkOptions("127.0.0.1", port, **settings))
        self.events = []

    def await_event(self, wanted):
        """The first event that is `wanted` and has not been waited for yet; forgets those before it."""
        end = time.monotonic() + WAIT
        while time.monotonic() < end:
            while self.events:
                event = self.events.pop(0)
                if wanted(event):
                    return event
            self.events += self.link.events.wait(end - time.monotonic())
        pytest.fail("the event did not come")

    def reply_to(self, token):
        reply = self.await_event(lambda event: event[0] == REPLY and event[1] is token)
        return Outcome(*reply[2])

    def state(self):
        return self.await_event(lambda event: event[0] == STATE)[1:]

    def connect(self):
        """The number of the connection."""
        token = object()
        self.link.connect(token)
        number, reason = self.state()
        assert (self.reply_to(token).code, reason) == (OK, "")
        return number

    def request(self, *arguments):
        return Outcome(*self.link.request(*arguments))


@contextlib.contextmanager
def user_of(kind, play, **options):
    with serving(play) as port:
        user = User(kind, port, **options)
        try:
            yield user, user.connect()
        finally:
            user.link.close()


def answers(connection):
    """Refuses 2, warns of 3, does not answer 4, goes away at 5; echoes anything else."""
    while True:
        command_id, payload = read_request(connection)
        if command_id == 5:
            return
        if command_id != 4:
            flags = {2: (int(MajorError.ControlBlocked), 0), 3: (0, 0x20)}.get(command_id, (0, 0))
            connection.sendall(response(command_id, payload, *flags))


def test_every_way_in_which_a_request_ends(kind):
    with user_of(kind, answers) as (user, number):
        link = user.link
        assert number > 0 and link.client_id() == 0
        assert user.request(1, b"\x07", 5, number) == (OK, "", b"\x07", 0, 0)
        assert link.client_id() == 7
        assert user.request(3, b"x" * 100_000, 0, number) == (OK, "", b"x" * 100_000, 0, 0x20)
        refused = user.request(2, b"", 5, number)
        assert (refused.code, refused.major) == (PROTOCOL, MajorError.ControlBlocked)
        assert refused.text == "VORLIN protocol error (majorError): ControlBlocked (0x00000040)"
        for command_id in (4, 9):  # in time, and after a time-out of its own
            started = time.monotonic()
            late = user.request(4, b"", 0.05, number)
            assert (late.code, late.payload) == (TIMEOUT, b"")
            assert late.text == "Request timeout for commandId=4 after 1 attempt(s)"
            assert 0.05 <= time.monotonic() - started < 2
            assert user.request(command_id, b"", 0.05, number).code == (TIMEOUT if command_id == 4 else OK)
        assert user.request(9, b"", 5, number + 1)[:2] == (TRANSPORT, "Not connected")
        lost = user.request(5, b"", 5, number)
        assert lost.code == TRANSPORT and lost.text.startswith("Disconnected: ")
        assert user.state()[0] == 0 and link.client_id() == 0
        assert user.request(9, b"", 5, number)[:2] == (TRANSPORT, "Not connected")


def test_a_connect_that_fails_and_one_that_is_given_up(kind):
    with serving(echo) as port:
        pass
    user = User(kind, port)
    user.link.connect("nobody there")
    number, reason = user.state()
    assert number == 0 and reason.startswith("Connection failed: ")
    outcome = user.reply_to("nobody there")
    assert outcome.code == TRANSPORT and outcome.text.startswith("Failed to connect: ")
    user.link.close()
    with user_of(kind, echo) as (user, number):
        user.link.connect("anew")
        assert user.state()[0] == 0  # the one that was there
        assert user.state()[0] > number
        assert user.reply_to("anew").code == OK
        user.link.disconnect("away")
        assert user.state()[0] == 0
        assert user.reply_to("away").code == OK
        assert user.link.events.take() == []


def test_replies_come_in_order_and_exactly_once(kind):
    with user_of(kind, answers) as (user, number):
        tokens = [object() for _ in range(300)]
        for index, token in enumerate(tokens):
            user.link.send(9, b"%d" % index, 5, number, token)
        user.link.send(9, b"", 5, number + 1, "elsewhere")
        user.link.send(4, b"", 5, number, "lost")
        user.link.send(9, b"", 5, number, "behind it")
        seen = []
        while ("behind it", TRANSPORT) not in seen:
            event = user.await_event(lambda event: event[0] == REPLY)
            outcome = Outcome(*event[2])
            seen.append((event[1], outcome.payload if outcome.code == OK else outcome.code))
            if event[1] is tokens[-1]:
                user.link.disconnect("down")
        seen.remove(("elsewhere", TRANSPORT))
        wanted = [(token, b"%d" % index) for index, token in enumerate(tokens)]
        assert seen == [*wanted, ("lost", TRANSPORT), ("behind it", TRANSPORT)]
        assert user.reply_to("down").code == OK
        user.link.send(9, b"", 5, number, "late")
        assert user.reply_to("late")[:2] == (TRANSPORT, "Not connected")


def test_only_notifications_that_are_watched_are_events(kind):
    with user_of(kind, echo_behind(notification(44, b"a"), notification(45), notification(44))) as (
        user,
        number,
    ):
        user.link.watch(44)
        user.link.send(9, b"", 5, number, "asked")
        user.reply_to("asked")
        user.request(9, b"", 5, number)
        user.link.disconnect("end")
        found = []
        while (event := user.await_event(lambda event: event[0] in (REPLY, NOTIFICATION)))[0] == NOTIFICATION:
            found += [(event[1], payload) for payload in event[2]]
        assert found == [(44, b"a"), (44, b"")]


def test_notifications_that_nobody_takes_are_dropped_oldest_first(kind):
    limit, more = 65_536, 1_000

    def flood(connection):
        frames = [notification(44, index.to_bytes(4, "big")) for index in range(limit + more)]
        connection.sendall(b"".join(frames))
        echo(connection)

    with serving(flood) as port:
        user = User(kind, port)
        user.link.watch(44)
        number = user.connect()
        assert user.request(9, b"", WAIT, number).code == OK  # behind the flood
        user.link.disconnect("end")
        numbers = []
        while (event := user.await_event(lambda event: event[0] in (REPLY, NOTIFICATION)))[0] == NOTIFICATION:
            numbers += [int.from_bytes(payload, "big") for payload in event[2]]
        dropped = user.link.events.dropped()
        # Some may have been taken while the connection was awaited.
        assert numbers[-limit:] == list(range(more, limit + more)) and len(numbers) + dropped >= limit + more
        assert dropped > 0
        user.link.close()


def test_log_records_are_events_from_their_level_on(kind):
    with user_of(kind, echo_behind(notification(45)), log_level=2) as (user, number):
        user.request(9, b"", 5, number)
        _, level, file, line, function, text, when = user.await_event(lambda event: event[0] == LOG)
        assert level == 3 and "No handler for notification commandId=45" in text
        assert isinstance(file, str) and line > 0 and function and abs(when - time.time()) < 60
        user.link.set_log_level(6)
        user.request(9, b"", 5, number)
        user.link.disconnect("end")
        user.reply_to("end")
        assert [event for event in user.events if event[0] == LOG] == []


def test_reconnects_wait_longer_each_time_and_begin_anew_after_a_connection(kind):
    with serving(lambda connection: None) as port:  # hangs up at once
        user = User(kind, port, reconnect=True, reconnect_delay=0.02, reconnect_delay_max=0.16)
        first = user.connect()
        assert user.state()[0] == 0
        up, _ = user.state()
        assert up > first
    times, connections = [], []
    while len(times) < 7:
        number, reason = user.state()
        times = [*times, time.monotonic()] if reason.startswith("Connection failed: ") else []
        connections += [number] if number else []
    waits = [later - earlier for earlier, later in zip(times, times[1:], strict=False)]
    for wait, least in zip(waits, (0.02, 0.04, 0.08, 0.08, 0.08, 0.08), strict=True):
        assert wait >= least * 0.95
    assert sum(waits) < 2  # without a limit the last alone would be 0.64
    assert sorted(set(connections)) == connections
    user.link.close()


def test_a_link_that_closes_lets_nobody_wait(kind):
    asked, outcomes = threading.Event(), queue.Queue()

    def play(connection):
        read_request(connection)
        asked.set()
        silence(connection)

    with user_of(kind, play, reconnect=True) as (user, number):

        def ask():
            outcomes.put(user.request(9, b"", 60, number).code)

        threads = [threading.Thread(target=ask) for _ in range(3)]
        for thread in threads:
            thread.start()
        user.link.send(9, b"", 60, number, "sent")
        assert asked.wait(WAIT)
        user.link.close()
        assert [outcomes.get(timeout=WAIT) for _ in threads].count(STOPPED) == 3
        assert user.reply_to("sent").code == STOPPED
        assert user.request(9, b"", 60, number).code == STOPPED
        user.link.send(9, b"", 60, number, "later")
        assert user.reply_to("later").code == STOPPED
        user.link.connect("never again")
        assert user.reply_to("never again").code == STOPPED
        user.link.close()


def test_a_queue_can_be_watched_and_woken(kind):
    with user_of(kind, answers) as (user, number):
        events = user.link.events
        poll = select.poll()
        poll.register(events.fileno(), select.POLLIN)
        user.request(9, b"", 5, number)
        events.take()
        assert poll.poll(0) == [] and events.take() == []
        for _ in range(2):
            user.link.send(9, b"", 5, number, "asked")
            assert poll.poll(WAIT * 1000)
            assert events.take()
            assert poll.poll(0) == []
        started = time.monotonic()
        assert events.wait(0.05) == []
        assert 0.05 <= time.monotonic() - started < 2
        events.wake()
        assert events.wait(None) == []
        threading.Timer(0.05, events.wake).start()
        assert events.wait(None) == []


@contextlib.contextmanager
def interrupted():
    timer = threading.Timer(LATE, os.kill, (os.getpid(), signal.SIGINT))
    started = time.monotonic()
    timer.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            yield
        assert time.monotonic() - started < LATE + 0.5
    finally:
        timer.cancel()


def test_ctrl_c_ends_a_wait(kind):
    with user_of(kind, silence) as (user, number):
        with interrupted():
            user.link.request(9, b"", 60, number)
        with interrupted():
            while True:
                user.link.events.wait(None)


EXIT_SCRIPT = """
from vorlinkit.client.link import LinkOptions
from importlib import import_module
module, name = sys.argv[2].split(":")
link = getattr(import_module(module), name)(LinkOptions("127.0.0.1", int(sys.argv[1])))
link.connect(object())
number = 0
while not number:
    number = max((event[1] for event in link.events.wait(5) if event[0] == 1), default=0)
link.send(9, b"", 60, number, object())

def look():
    while True:
        link.events.wait(None)

def ask():
    while True:
        link.request(9, b"", 60, number)

for work in (look, ask, ask):
    threading.Thread(target=work, daemon=True).start()
if sys.argv[3] == "fork":
    child = os.fork()
    if child:
        _, status = os.waitpid(child, 0)
        assert status == 0, status
    else:
        assert link.request(9, b"", 60, number)[0] != 0
        link.close()
sys.exit(7 if sys.argv[3] == "exit" else 0)
"""


@pytest.mark.parametrize("how", ["exit", "fork"])
def test_a_process_ends_at_once_whoever_waits(kind, how):
    with serving(silence) as port:
        started = time.monotonic()
        name = f"{kind.__module__}:{kind.__name__}"
        assert run_script(EXIT_SCRIPT, port, name, how) == (7 if how == "exit" else 0, "", "")
        assert time.monotonic() - started < 5
