"""The link on sockets: frames cut anywhere, decisions without sockets, and hand-made servers that misbehave.

Needs no extension module, so that it runs wherever the link does.
"""

from __future__ import annotations

import contextlib
import gc
import os
import select
import socket
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from vorlinkit.client import socket_transport
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
from vorlinkit.client.socket_connecting import Connecting, Decision, StallWatch
from vorlinkit.client.socket_events import SocketEvents
from vorlinkit.client.socket_link import SocketLink
from vorlinkit.client.socket_requests import Request, Requests
from vorlinkit.wire.assembler import BadFrame, Frame, FrameAssembler, StreamFault
from vorlinkit.wire.frames import NOTIFICATION_HEADER, REQUEST_HEADER, notification, request, response

# --- frames -----------------------------------------------------------------------------------------------

STREAM = response(9, b"abc", 0x21, 2) + notification(0x0102) + request(7, b"x") + response(1, b"\7")
FRAMES = [Frame(2, 9, b"abc", 0x21, 2), Frame(3, 0x0102, b""), Frame(1, 7, b"x"), Frame(2, 1, b"\7")]


@pytest.mark.parametrize("piece", range(1, len(STREAM) + 1))
def test_frames_come_out_whole_however_the_stream_is_cut(piece: int) -> None:
    every_piece, two_pieces, found = FrameAssembler(), FrameAssembler(), []
    for at in range(0, len(STREAM), piece):
        found += every_piece.cut(STREAM[at : at + piece])
    assert found == FRAMES and not every_piece
    assert two_pieces.cut(STREAM[:piece]) + two_pieces.cut(STREAM[piece:]) == FRAMES


BAD_ID = StreamFault("Invalid protocol ID (expected 'VR')", "Invalid protocol ID in RX stream")
UNKNOWN = StreamFault("Unknown message type", "Unknown message type")


@pytest.mark.parametrize(
    ("chunks", "found"),
    [
        ([b"XX", b"\1\2" + STREAM, STREAM], [BAD_ID, *FRAMES]),
        ([STREAM + b"VR\1\0", STREAM], [*FRAMES, UNKNOWN, *FRAMES]),
        ([b"VR\1\4"], [UNKNOWN]),
        ([b"VR\2" + response(9)[3:] + STREAM], [BadFrame("Unsupported protocol version"), *FRAMES]),
        ([response(9)[:5] + b"\x0f" + response(9)[6:]], [BadFrame("Invalid Response header length")]),
        (
            [notification(9)[:4] + b"\1" + notification(9)[5:]],
            [BadFrame("Invalid Notification header length")],
        ),
        ([response(9, announced=0xFFFFFFFF), b"some"], []),
    ],
)
def test_hostile_headers(chunks: list[bytes], found: list[Any]) -> None:
    assembler = FrameAssembler()
    assert [one for chunk in chunks for one in assembler.cut(chunk)] == found


# --- decisions about requests -----------------------------------------------------------------------------


def asked(command_id: int) -> Request:
    return Request(command_id, bytearray(), timeout=5.0)


def codes(requests: Requests) -> list[tuple[int, int]]:
    requests.next()
    return [(one.command_id, one.outcome.code) for one in requests.take_finished() if one.outcome]


def test_requests_go_out_one_at_a_time_and_meet_their_answers() -> None:
    requests = Requests()
    for command_id in (1, 9, 9, 5, 5):
        requests.submit(asked(command_id))
    assert requests.next() is not None and requests.next() is None
    requests.written(100.0)
    assert requests.deadline == 105.0
    assert not requests.response(Frame(2, 9, b"")).expected  # of another command
    reception = requests.response(Frame(2, 1, b"\7", 0, 1))
    assert reception.client_id == 7 and reception.text.endswith("UnknownRequestVersion (0x00000001)")
    assert codes(requests) == [(1, OK)]

    assert requests.response(Frame(2, 9, b"")).expected  # the machine is quicker than the write
    assert requests.response(Frame(2, 9, b"")).expected  # and says it twice
    assert codes(requests) == []
    requests.written(200.0)
    assert codes(requests) == [(9, OK)]

    refusal = requests.response(Frame(2, 9, b"", 0x402))  # before it has read all of the request
    assert refusal.text == "VORLIN protocol error (majorError): UnsupportedHeaderType (0x00000002)"
    assert codes(requests) == [(9, PROTOCOL)] and requests.next() is None  # nothing goes between its bytes
    requests.written(300.0)
    assert requests.next() is not None
    requests.written(300.0)
    requests.timed_out()
    assert codes(requests) == [(5, TIMEOUT)]
    requests.written(300.0)
    requests.fault("Unknown message type")
    assert codes(requests) == [(5, PROTOCOL)]


def test_a_loss_fails_everything_and_nothing_of_it_is_sent_later() -> None:
    requests = Requests()
    for command_id in (1, 2, 3):
        requests.submit(asked(command_id))
    requests.next()
    requests.lost(TRANSPORT, "Disconnected: End of file")
    assert codes(requests) == [(1, TRANSPORT), (2, TRANSPORT), (3, TRANSPORT)]
    assert requests.next() is None and requests.deadline == float("inf")


# --- decisions about connections --------------------------------------------------------------------------

HERE = (socket.AF_INET, ("127.0.0.1", 1))
THERE = (socket.AF_INET, ("127.0.0.2", 1))


def test_every_address_is_tried_and_the_wait_for_the_next_attempt_grows() -> None:
    connecting = Connecting(1.0, 5.0, chance=lambda: 0.5)
    assert connecting.connect() == Decision(look_up=True)
    assert connecting.looked_up([HERE, THERE], "") == Decision(connect_to=HERE)
    assert connecting.connect_ended("refused") == Decision(connect_to=THERE)
    waits = [connecting.connect_ended("refused").reconnect_in]
    for _ in range(4):
        assert connecting.reconnect_due().look_up
        waits.append(connecting.looked_up([], "unknown").reconnect_in)
    assert waits == [0.75, 1.5, 3.0, 3.75, 3.75]
    connecting.connect()
    connecting.looked_up([HERE], "")
    assert connecting.connect_ended(None) == Decision(cancel_reconnect=True, connected=True)
    assert connecting.connection_failed("gone") == Decision(lost="gone", reconnect_in=0.75)


def test_what_is_given_up_is_told_so() -> None:
    connecting = Connecting(None)
    connecting.connect()
    assert connecting.connect() == Decision(attempt_failed="Operation canceled", look_up=True)
    assert connecting.number == 2
    assert connecting.deadline_passed() == Decision(attempt_failed="Connection timeout", timed_out=True)
    assert connecting.close() == Decision(cancel_reconnect=True)
    assert connecting.reconnect_due() == Decision()


def test_a_peer_stalls_when_it_takes_nothing_for_the_whole_limit() -> None:
    watch = StallWatch(8.0)
    assert watch.start(0.0, 100) == 1.0
    assert watch.look(6.0, 99) == 7.0
    assert watch.look(13.5, 99) == 14.0
    assert watch.look(14.0, 99) is None


# --- the queue of events ----------------------------------------------------------------------------------


def test_the_queue_drops_the_oldest_notifications_and_nothing_else() -> None:
    events = SocketEvents(limit=2)
    told: list[int] = []
    events.set_wake(lambda: told.append(1))
    events.put([(REPLY, 1), (NOTIFICATION, 1), (LOG, 1), (NOTIFICATION, 2), (NOTIFICATION, 3), (STATE, 1)])
    events.put([(NOTIFICATION, 4)])
    assert len(told) == 1
    assert events.take() == [(REPLY, 1), (LOG, 1), (NOTIFICATION, 3), (STATE, 1), (NOTIFICATION, 4)]
    assert events.dropped() == 2


def test_the_queue_is_readable_while_there_are_events_and_can_be_woken() -> None:
    events = SocketEvents()
    watched = socket.socket(fileno=os.dup(events.fileno()))
    with watched:
        for _ in range(2):
            with pytest.raises(BlockingIOError):
                watched.recv(1, socket.MSG_PEEK)
            events.put([(REPLY, 1)])
            assert watched.recv(1, socket.MSG_PEEK)
            assert events.wait(None) == [(REPLY, 1)]
    events.wake()
    assert events.wait(None) == [] and events.wait(0.001) == []


# --- links and hand-made servers --------------------------------------------------------------------------


@contextlib.contextmanager
def serving(play: Callable[[socket.socket], None]) -> Iterator[int]:
    """The port of a server that calls `play` for every client, in a thread."""
    with socket.create_server(("127.0.0.1", 0)) as listener:

        def converse(connection: socket.socket) -> None:
            with connection, contextlib.suppress(OSError):
                play(connection)

        def accept() -> None:
            with contextlib.suppress(OSError):
                while True:
                    threading.Thread(target=converse, args=listener.accept()[:1], daemon=True).start()

        accepting = threading.Thread(target=accept, daemon=True)
        accepting.start()
        try:
            yield listener.getsockname()[1]
        finally:
            with contextlib.suppress(OSError):
                listener.shutdown(socket.SHUT_RDWR)


def read_request(connection: socket.socket, ids: list[int] | None = None) -> tuple[int, bytes]:
    """Command and payload; the client id goes to `ids`."""
    header = connection.recv(REQUEST_HEADER.size, socket.MSG_WAITALL)
    if len(header) < REQUEST_HEADER.size:
        raise ConnectionError
    fields = REQUEST_HEADER.unpack(header)
    if ids is not None:
        ids.append(fields[5])
    return fields[4], connection.recv(fields[-1], socket.MSG_WAITALL)


def echo(connection: socket.socket) -> None:
    while True:
        connection.sendall(response(*read_request(connection)))


def next_event(link: SocketLink, kind: int) -> Any:
    """The next event of this kind; others before it are dropped."""
    kept: list[Any] = link.__dict__.setdefault("kept_by_test", [])
    while True:
        while kept:
            if (event := kept.pop(0))[0] == kind:
                return event
        kept += link.events.wait(10)
        assert kept, f"waited in vain for an event of kind {kind}"


@contextlib.contextmanager
def linked(port: int, host: str = "127.0.0.1", **settings: Any) -> Iterator[SocketLink]:
    words: dict[str, Any] = {"reconnect": False, "log_level": 6, **settings}
    link = SocketLink(LinkOptions(host, port, **words))
    try:
        link.connect("first")
        yield link
    finally:
        link.close()


def test_an_answer_read_before_a_request_was_written_is_not_its_answer() -> None:
    half_read = threading.Event()

    def play(connection: socket.socket) -> None:
        read_request(connection)
        connection.sendall(response(9, b"1") * 2)  # both in one chunk
        read_request(connection)
        late = response(9, b"2")
        connection.sendall(late + late[:15])
        half_read.wait(10)
        read_request(connection)
        connection.sendall(late[15:] + response(9, b"3"))
        echo(connection)

    with serving(play) as port, linked(port) as link:
        next_event(link, REPLY)
        assert [link.request(9, b"", 0, 0).payload for _ in range(2)] == [b"1", b"2"]
        deadline = time.monotonic() + 10
        while not link._assembler and time.monotonic() < deadline:  # the half is on its way
            os.sched_yield() if hasattr(os, "sched_yield") else time.sleep(0)
        half_read.set()
        assert link.request(9, b"", 0, 0).payload == b"3"


def test_a_connection_takes_nothing_over_from_the_one_before() -> None:
    ids: list[int] = []

    def play(connection: socket.socket) -> None:
        read_request(connection, ids)
        connection.sendall(response(1, b"\7"))
        read_request(connection, ids)
        connection.sendall(response(9, b"half of it")[:-3])

    settings: dict[str, Any] = {"reconnect": True, "reconnect_delay": 0.01, "request_timeout": 1e9}
    lost = (TRANSPORT, "Disconnected: End of file", b"", 0, 0)
    with serving(play) as port, linked(port, **settings) as link:
        for _ in range(2):
            connection = next_event(link, STATE)[1]
            assert link.request(1, b"", 0, connection).payload == b"\7" and link.client_id() == 7
            assert link.request(9, b"", 0, connection) == lost
            assert next_event(link, STATE) == (STATE, 0, lost[1])
    assert ids == [0, 7, 0, 7]


def test_time_is_kept_whatever_the_thread_sleeps_for_and_never_against_what_has_arrived() -> None:
    answering = threading.Event()

    def play(connection: socket.socket) -> None:
        for _ in range(3):
            read_request(connection)
        answering.wait(10)
        connection.sendall(response(9, b"late"))
        connection.recv(1)

    with serving(play) as port, linked(port, request_timeout=60) as link:
        next_event(link, REPLY)
        timed_out = Outcome(TIMEOUT, "Request timeout for commandId=9 after 1 attempt(s)", b"", 0, 0)
        assert link.request(9, b"", 0.01, 0) == timed_out
        link.send(9, b"", 0.01, 0, "short")
        assert next_event(link, REPLY)[1:] == ("short", timed_out)
        link.send(9, b"", 60, 0, "late")
        with link._lock:  # what the thread finds that was held up until time was over
            answering.set()
            assert select.select([link._transport._socket], [], [], 10)[0]
            link._requests.deadline = 0.0
            link._handle([])
        link.events.put(link._out)
        assert next_event(link, REPLY)[1:] == ("late", (OK, "", b"late", 0, 0))


def test_requests_of_many_threads_each_get_their_own_answer() -> None:
    wrong: list[Any] = []

    def ask(link: SocketLink, number: int) -> None:
        for turn in range(200):
            payload = b"%d %d" % (number, turn)
            if link.request(9, payload, 0, 1) != (OK, "", payload, 0, 0):
                wrong.append(payload)

    with serving(echo) as port, linked(port) as link:
        assert next_event(link, STATE) == (STATE, 1, "")
        threads = [threading.Thread(target=ask, args=(link, number)) for number in range(4)]
        for thread in threads:
            thread.start()
        for turn in range(200):
            link.send(7, b"", 0, 1, turn)
        assert next_event(link, REPLY)[1] == "first"
        assert [next_event(link, REPLY)[1] for _ in range(200)] == list(range(200))
        for thread in threads:
            thread.join()
        assert wrong == []
        assert link.request(7, b"", 0, 2) == (TRANSPORT, "Not connected", b"", 0, 0)


def test_a_large_request_goes_out_whole_and_a_stalled_peer_is_given_up(monkeypatch: Any) -> None:
    monkeypatch.setattr(socket_transport, "LEAST_STALL_LIMIT", 0.3)
    taking = threading.Event()

    def play(connection: socket.socket) -> None:
        taking.wait(10)
        connection.sendall(response(*read_request(connection)))
        taking.clear()
        taking.wait(10)

    large = os.urandom(20_000_000)
    with serving(play) as port, linked(port, request_timeout=0.1) as link:
        next_event(link, STATE)
        link.send(9, large, 10, 1, "large")
        link.send(7, b"", 0, 1, "queued")
        taking.set()
        next_event(link, REPLY)
        assert next_event(link, REPLY)[2].payload == large
        assert next_event(link, REPLY)[2].code == TIMEOUT
        stalled = link.request(9, large, 10, 1)
        assert stalled == (TRANSPORT, "Disconnected: Connection timed out", b"", 0, 0)
        taking.set()


def test_a_look_up_that_hangs_does_not_outlast_the_deadline(monkeypatch: Any) -> None:
    answer, real = threading.Event(), socket.getaddrinfo

    def slow(host: str, port: int, flags: int = 0, **words: Any) -> Any:
        if flags:
            raise socket.gaierror(socket.EAI_NONAME, "not a number")
        answer.wait(10)
        return [*real("127.0.0.1", nobody, **words), *real("127.0.0.1", port, **words)]

    with socket.create_server(("127.0.0.1", 0)) as unused:
        nobody = unused.getsockname()[1]
    monkeypatch.setattr(socket, "getaddrinfo", slow)
    with serving(echo) as port, linked(port, "machine", connect_timeout=0.1, request_timeout=1e9) as link:
        timed_out = Outcome(TIMEOUT, "Failed to connect: Connection timeout", b"", 0, 0)
        assert next_event(link, REPLY) == (REPLY, "first", timed_out)
        answer.set()
        link.connect("second")  # the first of two addresses refuses
        assert next_event(link, REPLY)[1:] == ("second", (OK, "", b"", 0, 0))
        link.connect("third")
        assert next_event(link, STATE) == (STATE, 0, "Disconnected: Operation canceled")
        assert next_event(link, STATE) == (STATE, 3, "")


def test_a_link_that_nobody_holds_ends_its_connection_and_thread() -> None:
    ended = threading.Event()

    def play(connection: socket.socket) -> None:
        connection.recv(1)
        ended.set()

    with serving(play) as port:
        link = SocketLink(LinkOptions("127.0.0.1", port))
        link.connect(1)
        next_event(link, REPLY)
        thread = link._thread
        del link
        gc.collect()
        assert ended.wait(10)
        thread.join(10)
        assert not thread.is_alive()


def test_after_a_fault_of_its_own_a_link_lets_nobody_wait(monkeypatch: Any) -> None:
    with serving(echo) as port, linked(port) as link:
        next_event(link, STATE)
        monkeypatch.setattr(link._assembler, "cut", None)
        assert link.request(9, b"", 0, 0).code == STOPPED
        assert link.request(9, b"", 0, 0).code == STOPPED
        link.connect("late")
        assert next_event(link, REPLY)[1:] == ("first", (OK, "", b"", 0, 0))
        assert next_event(link, REPLY)[2].code == STOPPED


SCRIPT = """
import os, signal, sys, threading
from vorlinkit.client.link import LinkOptions
from vorlinkit.client.socket_link import SocketLink
link = SocketLink(LinkOptions("127.0.0.1", int(sys.argv[1])))
link.connect(1)
link.events.wait(10)
def interrupted(wait):
    threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT)).start()
    try:
        return wait()
    except KeyboardInterrupt:
        return "interrupted"
"""


@pytest.mark.skipif(sys.platform == "win32", reason="needs fork and signals to a process")
@pytest.mark.parametrize(
    ("ending", "said"),
    [
        ("print('exit')", "exit"),
        ("print(interrupted(lambda: link.request(9, b'', 0, 0)))", "interrupted"),
        ("print(interrupted(lambda: link.events.wait(None)))", "interrupted"),
        ("threading.Thread(target=link.request, args=(9, b'', 0, 0), daemon=True).start(); print(1)", "1"),
        (
            "child = os.fork()\n"
            "if not child:\n    print(link.request(9, b'', 0, 0).text, flush=True)\n    link.connect(2)\n"
            "    print(link.events.wait(9)[0][2].text, flush=True)\n    link.close()\n"
            "else:\n    print(os.waitpid(child, 0)[1])",
            "Not connected\nNot connected\n0",
        ),
    ],
)
def test_a_process_ends_as_its_user_expects(ending: str, said: str) -> None:
    def silent(connection: socket.socket) -> None:
        while connection.recv(100):
            pass

    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(filter(None, sys.path))}
    with serving(silent) as port:
        words = [sys.executable, "-W", "ignore::DeprecationWarning", "-c", SCRIPT + ending, str(port)]
        done = subprocess.run(words, env=environment, capture_output=True, text=True, timeout=20)
    assert (done.returncode, done.stdout.strip(), done.stderr) == (0, said, "")


def test_notifications_come_in_order_beside_log_records() -> None:
    def play(connection: socket.socket) -> None:
        read_request(connection)
        frames = b"".join(notification(5, b"%d" % number) for number in range(1000))
        connection.sendall(
            frames + notification(6) + b"VR\2" + NOTIFICATION_HEADER.pack(b"", 3, 3, 8, 9, 0)[3:]
        )
        connection.sendall(response(9, b"", 0x21))
        echo(connection)

    with serving(play) as port, linked(port, log_level=3) as link:
        next_event(link, STATE)
        link.watch(5)
        link.send(9, b"", 0, 1, "burst")
        assert [next_event(link, NOTIFICATION)[2] for _ in range(1000)] == [[b"%d" % n] for n in range(1000)]
        level, file, line, function, text = next_event(link, LOG)[1:6]
        assert (level, text) == (3, "No handler for notification commandId=6")
        assert file.endswith("socket_link.py") and line > 1 and function.startswith("SocketLink.")
        assert next_event(link, LOG)[5] == "Message decode error: Unsupported protocol version"
        refused = next_event(link, LOG)
        assert (refused[1], refused[5]) == (4, next_event(link, REPLY)[2].text)
