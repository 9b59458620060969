"""What a user of one session sees: results, errors, callbacks, the logger."""

import gc
import queue
import threading
import weakref
from concurrent.futures import ThreadPoolExecutor
from functools import partial

import pytest
import vorlinkit_python as vorlin
from fake_server import config_for, connected_session, echo, echo_behind, serving
from vorlinkit.wire.frames import notification, response

WAIT = 5  # seconds an awaited event may take before the test gives up


def test_requests_and_answers():
    with serving(echo) as port:
        pass
    connected, error = vorlin.VorlinSession(config_for(port)).connect()
    assert connected is False and error.startswith("Failed to connect: ")
    with connected_session(echo) as session:
        assert session.is_connected() is True
        assert session.send(11) == (b"", "")
        assert session.send(11, None) == (b"", "")
        assert session.send(commandId=0xFFFF, payload=b"\x00\xff" * 1000) == (b"\x00\xff" * 1000, "")
        assert session.client_id() == 0
        assert session.send(1, b"\x07") == (b"\x07", "")
        assert session.client_id() == 7
        session.disconnect()
        assert session.is_connected() is False
        assert session.client_id() == 0
        assert session.send(11) == (None, "Not connected")


def test_many_threads_get_their_own_answers():
    def wrong_answers(number):
        payloads = [b"%d/%d" % (number, turn) for turn in range(50)]
        return [payload for payload in payloads if session.send(number, payload) != (payload, "")]

    with connected_session(echo) as session, ThreadPoolExecutor(8) as threads:
        assert list(threads.map(wrong_answers, range(8))) == [[]] * 8


def test_wrong_arguments_raise_and_send_nothing():
    frames = []
    with connected_session(echo) as session:
        session.on_frame(lambda *frame: frames.append(frame))
        for call, *wrong in (
            (
                session.send,
                (0x1_0000,),
                (-1,),
                ("11",),
                (11.0,),
                (11, bytearray(b"x")),
                (11, memoryview(b"x")),
            ),
            (partial(session.send, command_id=11), ()),
            (session.send, (11, "x")),
            (session.on_notification, (11, None), (0x1_0000, print)),
            (session.on_frame, (3,)),
            (session.on_connection_state_changed, ("print",)),
            (vorlin.VorlinSession, (), (vorlin.SessionConfig(), "logger")),
        ):
            for arguments in wrong:
                with pytest.raises(TypeError):
                    call(*arguments)
    assert frames == []


def test_docstrings_have_signatures_in_python_types_and_say_more():
    for owner in ("SessionConfig", "IVorlinLogger", "FieldCodedValue", "FieldCodedValues", "VorlinSession"):
        for name, member in vars(getattr(vorlin, owner)).items():
            first, _, more = (member.__doc__ or "").partition("\n\n" if callable(member) else " ")
            assert "::" not in first, f"{owner}.{name}"
            if not name.startswith("_"):
                assert more, f"{owner}.{name}"
                assert not callable(member) or first.startswith(f"{name}(self: vorlinkit_python.{owner}")


def test_callbacks_report_notifications_frames_and_state():
    events, frames = queue.Queue(), []

    def first(*change):
        session.on_connection_state_changed(lambda *change: events.put(("second", *change)))
        events.put(change)

    notifications = notification(44, b"first"), notification(45, b"nobody listens"), notification(44)
    with serving(echo_behind(*notifications)) as port:
        session = vorlin.VorlinSession(config_for(port))
        session.on_connection_state_changed(first)
        session.on_notification(44, lambda payload: events.put("replaced"))
        session.on_notification(commandId=44, callback=events.put)
        session.on_frame(lambda *frame: frames.append(frame))
        assert session.connect() == (True, "")
        assert session.send(9, b"x") == (b"x", "")
        assert [events.get(timeout=WAIT) for _ in range(3)] == [(True, ""), b"first", b""]
    who, connected, reason = events.get(timeout=WAIT)  # the server has hung up
    assert (who, connected) == ("second", False)
    assert isinstance(reason, str) and reason
    assert session.send(9) == (None, "Not connected")
    assert [direction for direction, _ in frames] == [vorlin.Tx] + [vorlin.Rx] * 4
    assert frames[1][0] is vorlin.FrameDirection.Rx
    assert frames[-1] == (vorlin.Rx, response(9, b"x"))


@pytest.mark.parametrize("where", ["on_notification", "on_frame", "on_connection_state_changed"])
def test_an_exception_in_a_callback_is_written_to_stderr(where, capsys):
    def fail(*_):
        raise ValueError("bad luck")

    with connected_session(echo_behind(notification(44), notification(44))) as session:
        getattr(session, where)(*([44] if where == "on_notification" else []), fail)
        assert session.send(9, b"on it goes") == (b"on it goes", "")
        session.disconnect()
    lines = [line for line in capsys.readouterr().err.splitlines() if "bad luck" in line]
    assert set(lines) == {f"Exception in Python {where} callback: ValueError: bad luck"}
    assert len(lines) == {"on_notification": 2, "on_frame": 4, "on_connection_state_changed": 1}[where]


def test_a_callback_may_use_its_session_and_waits_for_nothing():
    results = queue.Queue()

    def meddle(payload):
        results.put(session.send(1))
        results.put(session.connect())
        session.on_notification(44, meddle)
        session.on_notification(45, meddle)
        session.on_frame(lambda *_: None)
        session.on_connection_state_changed(lambda *change: results.put(change))
        session.disconnect()

    with connected_session(echo_behind(notification(44))) as session:
        session.on_notification(44, meddle)
        session.send(9)
        for nothing in (None, False):
            value, error = results.get(timeout=WAIT)
            assert value is nothing
            assert "callback" in error
        assert results.get(timeout=WAIT)[0] is False
        assert session.is_connected() is False


def registrations(session):
    return session.on_frame, session.on_connection_state_changed, partial(session.on_notification, 44)


def test_callables_are_released_when_replaced_and_when_the_session_goes():
    session = vorlin.VorlinSession(vorlin.SessionConfig())
    for register in registrations(session):
        earlier, later = (lambda *_: None), (lambda *_: None)
        gone = [weakref.ref(earlier), weakref.ref(later)]
        register(earlier)
        register(later)
        del earlier, later
        assert [reference() is None for reference in gone] == [True, False]
    del register, session
    assert gone[1]() is None


@pytest.mark.parametrize("kind", [vorlin.VorlinSession, type("Own", (vorlin.VorlinSession,), {})])
def test_a_callback_that_refers_to_its_session_is_no_leak(kind):
    with serving(echo) as port:
        session = kind(config_for(port))
        for register in registrations(session):
            register(lambda *_, kept=session: None)
        assert session.connect() == (True, "")
        gone = weakref.ref(session)
        del session, register
        gc.collect()
        assert gone() is None
    half_made = kind.__new__(kind)
    gc.collect()  # survives that, too
    del half_made


def test_a_session_may_end_on_its_own_io_thread():
    alone = threading.Event()
    hung_up, gone_on = queue.Queue(), queue.Queue()

    def play(connection):
        alone.wait(WAIT)
        connection.sendall(notification(44) + notification(44))
        hung_up.put(connection.recv(1))

    with serving(play) as port:
        session = vorlin.VorlinSession(config_for(port))
        owners = [session]
        session.on_notification(44, lambda _: owners.clear())
        assert session.connect() == (True, "")
        gone = weakref.ref(session, lambda _: gone_on.put(threading.get_ident()))
        del session
        alone.set()
        assert gone_on.get(timeout=WAIT) != threading.get_ident()
        assert hung_up.get(timeout=WAIT) == b""
        assert gone() is None


class Records(vorlin.IVorlinLogger):
    def __init__(self):
        super().__init__()
        self.seen = []

    def log(self, level, file, line, message):
        self.seen.append((level, file, line, message))


def test_a_python_logger_gets_the_records_above_its_threshold():
    logger = Records()
    assert logger.get_log_level() is not None and logger.get_log_level() == vorlin.LogLevel.info
    with connected_session(echo, logger) as session:
        session.disconnect()
    (level, file, line, message), connected = logger.seen[:2]
    assert (level is vorlin.LogLevel.info, file) == (True, "src/TcpTransport")
    assert isinstance(line, int) and line > 0
    assert message.startswith("Connecting to 127.0.0.1:")
    assert connected[3] == "Connected successfully"
    assert any(level == vorlin.LogLevel.warn for level, *_ in logger.seen)

    silent = Records()
    silent.set_log_level(vorlin.LogLevel.off)
    with connected_session(echo, silent):
        pass
    assert silent.seen == []


def test_loggers_that_cannot_log_do_no_harm(capsys):
    def logger_with(**members):
        return type("Own", (vorlin.IVorlinLogger,), members)()

    def fail(self, *record):
        raise KeyError("no log today")

    for logger in (logger_with(), vorlin.IVorlinLogger(), None):
        with connected_session(echo, logger):
            pass
    with connected_session(echo, Records()) as session:  # nobody else keeps the logger
        gc.collect()
        assert session.send(1) == (b"", "")
    assert capsys.readouterr().err == ""
    failure = "KeyError: 'no log today'"
    complaints = {fail: failure, property(fail): failure, 5: "TypeError: 'int' object is not callable"}
    for log, complaint in complaints.items():
        with connected_session(echo, logger_with(log=log)):
            pass
        report = f"Exception in Python IVorlinLogger.log callback: {complaint}\n"
        assert report in capsys.readouterr().err
    with connected_session(echo, logger_with(log=print)):
        pass
    assert "Connected successfully" in capsys.readouterr().out
