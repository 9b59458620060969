"""Every misbehaviour, as a client of bare bytes meets it."""

from __future__ import annotations

import json
import socket
import tomllib
from contextlib import nullcontext, suppress
from pathlib import Path

import pytest
from conftest import Bench
from vorlinkit.catalogue import Catalogue
from vorlinkit.simulator import SimulatorFailed, SimulatorProcess
from vorlinkit.simulator.answer import Answer
from vorlinkit.simulator.faults.actions import build
from vorlinkit.simulator.faults.misbehaviour import ScenarioError
from vorlinkit.simulator.faults.scenario import Scenario, parse_text, read_file
from vorlinkit.simulator.network.server import _why_not
from vorlinkit.simulator.options import parse
from vorlinkit.wire import frames
from vorlinkit.wire.frames import MajorError, MinorError

INFO = 11


def test_second_request_is_late_and_notifications_go_on(bench: Bench) -> None:
    simulator = bench.simulator(rules=("command=GetMachineInfo request=2 delay=600000",))
    peer = bench.peer(simulator)
    assert peer.ask("GetMachineInfo")["SerialNumber"] == "SIM-0001"
    peer.send("GetMachineInfo")
    simulator.wait_for("misbehaved", command=INFO)
    simulator.control("notify GetServerStatus RestartStatus=2 DetailedStatus=soon")
    assert peer.notification("GetServerStatus") == {"RestartStatus": 2, "DetailedStatus": "soon"}


R, N = frames.RESPONSE, frames.NOTIFICATION


@pytest.mark.parametrize(
    ("rule", "seen"),
    [
        ("no_answer", []),
        ("delay=1", [(R, 11, 0, 0)]),
        ("wrong_command_id", [(R, 12, 0, 0)]),
        ("wrong_command_id=7", [(R, 7, 0, 0)]),
        ("duplicate=2", [(R, 11, 0, 0)] * 3),
        ("major_error=0x21", [(R, 11, 0x21, 0)]),
        ("major_error=ControlBlocked,AccessKeyIncorrect", [(R, 11, 0xC0, 0)]),
        ("minor_error=UnknownRequestVersion", [(R, 11, 0, 1)]),
        ("glued", [(N, 5, 0, 0), (R, 11, 0, 0)]),  # it has no notification of its own
    ],
)
def test_frames_that_answer_a_request(bench: Bench, rule: str, seen: list[tuple[int, ...]]) -> None:
    peer = bench.peer(bench.simulator(rules=(f"command=11 {rule}",)))
    peer.send("GetMachineInfo")
    peer.send("GetServerTime")
    came = [peer.frame() for _ in (*seen, "and that of the next request")]
    told = [(one.type, one.command_id, one.major_error, one.minor_error) for one in came]
    assert told == [*seen, (R, 10, 0, 0)]
    assert len({one.payload for one in came[:-1] if one.type == R}) <= 1


def test_command_error_bits(bench: Bench) -> None:
    peer = bench.peer(bench.simulator(rules=("command_error=0x0003",)))
    assert peer.client_id == 1
    assert peer.ask("FlushLog", LogName="System") == {"CommandError": 3}
    assert peer.ask("GetLogFlushBehaviour") == {"FlushBehaviour": 0}


def test_what_is_refused_or_lost_changes_nothing(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    for rule in ("major_error=ControlBlocked", "command_error=2", "not_carried_out no_answer", "no_answer"):
        simulator.control(f"rule command=SetFeedRate {rule}")
        peer.send("SetFeedRate", FeedConfigurerID="F1", FeedRate=33)
        done = rule == "no_answer"
        assert simulator.wait_for("request", name="SetFeedRate")["carried_out"] == done
        if "no_answer" not in rule:
            peer.response()
        assert (peer.ask("GetFeedRate", FeedConfigurerID="F1", NotificationLevel=0)["FeedRate"] == 33) == done
        simulator.control("clear-rules")


def test_a_duplicate_may_come_later(bench: Bench) -> None:
    peer = bench.peer(bench.simulator(rules=("command=11 request=1 duplicate later=500",)))
    peer.send("GetMachineInfo")
    peer.send("GetServerTime")
    assert [peer.frame().command_id for _ in range(3)] == [11, 10, 11]


def test_a_frozen_connection_stays_and_does_nothing(bench: Bench) -> None:
    simulator = bench.simulator(rules=("command=SetFeedRate freeze",))
    frozen, other = bench.peer(simulator), bench.peer(simulator)
    frozen.send("SetFeedRate", FeedConfigurerID="F1", FeedRate=33)
    frozen.send("ForcedGetExclusiveControl")
    for name in ("SetFeedRate", "ForcedGetExclusiveControl"):
        assert not simulator.wait_for("request", connection=1, name=name)["carried_out"]
    simulator.control("notify GetServerStatus connection=1")
    other.ask("GetServerTime")
    frozen.socket.setblocking(False)
    with pytest.raises(BlockingIOError):
        frozen.socket.recv(1)


@pytest.mark.parametrize("side", ["ahead", "behind"])
def test_another_client_takes_control(bench: Bench, side: str) -> None:
    simulator = bench.simulator("--strict-control", rules=(f"command=SetServerTime take_control={side}",))
    peer = bench.peer(simulator)
    assert peer.error("GetExclusiveControl") == 0
    peer.send("SetServerTime", Timestamp=1)
    kinds = [peer.frame().type for _ in range(2)]
    assert kinds == ([N, R] if side == "ahead" else [R, N])
    assert peer.error("GetExclusiveControl") == 2
    simulator.control("release-control")
    assert peer.error("GetExclusiveControl") == 0
    simulator.control("take-control")
    assert peer.notification("GetExclusiveControl") == {"ControlStatus": 2}
    held = [one["control"] for one in simulator.events if one["event"] == "request" and one["changes"]]
    assert held == [True]


def test_a_restart_forgets_what_belongs_to_clients(bench: Bench) -> None:
    simulator = bench.simulator(rules=("command=SetFeedRate restart=1000",))
    peer, holder = bench.peer(simulator), bench.peer(simulator)
    holder.ask("StartRemoteAccess")
    holder.ask("ForcedGetExclusiveControl")
    simulator.set("GetFeedRate", FeedConfigurerID="F2", FeedRate=7)
    peer.send("SetFeedRate", FeedConfigurerID="F1", FeedRate=33)
    for one in (peer, holder):
        with pytest.raises(ConnectionResetError):
            one.until_end()
    with pytest.raises(ConnectionRefusedError):
        bench.peer(simulator)
    with pytest.raises(SimulatorFailed, match="is restarting already"):
        simulator.control("restart")
    simulator.wait_for("restarted")
    peer = bench.peer(simulator)
    assert (peer.client_id, peer.error("GetExclusiveControl"), peer.error("StartRemoteAccess")) == (1, 0, 0)
    rates = [
        peer.ask("GetFeedRate", FeedConfigurerID=one, NotificationLevel=0)["FeedRate"] for one in ("F1", "F2")
    ]
    assert rates == [33, 7]


@pytest.mark.parametrize(
    ("value", "junk"),
    [(7, b"no fram"), (12, b"no frame no "), ("hex:5858", b"XX"), (True, b"this is no frame")],
)
def test_kinds_of_junk(value: object, junk: bytes) -> None:
    assert build("junk", value, {}).apply(Answer(INFO)).ahead == (junk,)


@pytest.mark.parametrize(
    ("part", "at", "value"),
    [("protocol", 0, ord("X")), ("version", 2, 2), ("type", 3, 9), ("header_length", 5, 239)],
)
def test_corrupt_headers(bench: Bench, part: str, at: int, value: int) -> None:
    peer = bench.peer(bench.simulator(rules=(f"command=11 corrupt={part}",)))
    peer.send("GetMachineInfo")
    assert peer.exactly(20)[at] == value


@pytest.mark.parametrize("how", ["half_close", "close", "reset"])
@pytest.mark.parametrize("moment", ["instead", "middle", "after"])
def test_endings(bench: Bench, how: str, moment: str) -> None:
    simulator = bench.simulator(rules=(f"command=11 {how}={moment}",))
    peer = bench.peer(simulator)
    peer.send("GetMachineInfo")
    whole = 20 + 35
    if how == "reset":
        with pytest.raises(ConnectionResetError):
            peer.until_end()
    else:
        assert len(peer.until_end()) == {"instead": 0, "middle": whole // 2, "after": whole}[moment]
    if how == "half_close":
        peer.send("GetServerTime")
        assert simulator.wait_for("request", command=10)
    else:
        simulator.wait_for("closed", connection=1, by="simulator")


def test_silence_after_accept(bench: Bench) -> None:
    simulator = bench.simulator(rules=("connection=1 silent",))
    silent = bench.peer(simulator, identified=False)
    silent.send("GetMachineInfo")
    simulator.wait_for("request", command=INFO)
    assert bench.peer(simulator).client_id == 1
    silent.socket.setblocking(False)
    with pytest.raises(BlockingIOError):
        silent.socket.recv(1)


@pytest.mark.parametrize("how", ["close", "reset"])
def test_drop_on_accept(bench: Bench, how: str) -> None:
    simulator = bench.simulator(rules=(f"connection=1 drop_on_accept={how}",))
    # A reset may come before the connection is seen to stand.
    with nullcontext() if how == "close" else pytest.raises(ConnectionResetError):
        assert bench.peer(simulator, identified=False).until_end() == b""
    assert bench.peer(simulator).client_id == 1


def test_drop_after_frames(bench: Bench) -> None:
    simulator = bench.simulator(rules=("connection=1 drop_after=3",))
    peer = bench.peer(simulator)
    peer.exchange("GetMachineInfo")
    peer.exchange("GetServerTime")
    assert peer.until_end() == b""
    assert bench.peer(simulator).ask("GetMachineInfo")


def test_a_client_that_sends_no_more_gets_its_answers(bench: Bench) -> None:
    peer = bench.peer(bench.simulator(rules=("command=11 delay=20",)))
    peer.send("GetMachineInfo")
    peer.send("GetServerTime")
    peer.socket.shutdown(socket.SHUT_WR)
    assert [peer.frame().command_id for _ in range(2)] == [11, 10]
    assert peer.until_end() == b""


def test_one_big_notification(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    simulator.control(f"notify GetMotorPosition size={1 << 24}")
    assert len(peer.frame().payload) == 1 << 24


def test_rules_come_and_go_while_it_runs(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    simulator.control("rule command=11 major_error=0x20")
    assert peer.exchange("GetMachineInfo").major_error == MajorError.ExclusiveControlRequired
    simulator.control("clear-rules")
    assert peer.exchange("GetMachineInfo").major_error == 0
    with pytest.raises(SimulatorFailed, match="no command 'GetNothing'"):
        simulator.control("rule command=GetNothing delay=5")
    simulator.control("reset connection=1")
    with pytest.raises(ConnectionResetError):
        peer.until_end()


def test_mistakes_in_lines_of_control_are_named(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    for line, complaint in (
        ("notify GetMotorPosition count=x", "count is a whole number from 1 to 4294967295, not 'x'"),
        ("notify GetMotorPosition count=-3", "count is a whole number"),
        ("notify GetMotorPosition size=-1", "size is a whole number from 0"),
        ("notify GetMotorPosition size=4 ActualMotorPosition=1", "say either size or ActualMotorPosition"),
        ("notify GetMotorPosition connection=x", "connection is a whole number from 1"),
        ("notify GetMotorPosition connection=7", "connection 7 is not open"),
        ("notify GetMotorPosition Nope=1", "GetMotorPosition has no field 'Nope'; it has AutomatedDeviceID"),
        ("notify GetMotorPosition ActualMotorPosition=99999", "from 0 to 65535, not '99999'"),
        ("notify GetStatistics StatisticsID=250", "StatisticsID is one of 1, 2, .*, not '250'"),
        ("notify GetMachineInfo", "GetMachineInfo has no notification"),
        ("notify 9999", "there is no command '9999'"),
        ("notify Nope", "there is no command 'Nope'"),
        ("close nonsense", "'nonsense' is not known here"),
        ("clear-rules now", "'now' is not known here"),
        ("rule command=007 delay=99999999999", "delay is a whole number"),
    ):
        with pytest.raises(SimulatorFailed, match=complaint):
            simulator.control(line)
    simulator.control("notify GetServerStatus DetailedStatus=5 count=2 connection=1")
    assert [peer.notification("GetServerStatus")["DetailedStatus"] for _ in range(2)] == ["5", "5"]


def test_a_client_that_floods_and_does_not_read_holds_up_nobody(bench: Bench) -> None:
    simulator = bench.simulator("--frame-size", "500x500")
    flood, other = bench.peer(simulator), bench.peer(simulator)
    flood.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
    for _ in range(100):
        flood.send("CaptureFrame", CapturableID="Camera1", listOfCaptureOptions=[])
    for _ in range(300):  # each of which gives the first client a turn, too
        other.ask("GetServerTime")
    other.ask("GetMachineInfo")
    simulator.wait_for("answered", connection=2, command=INFO)
    served = [one for one in simulator.events if one["event"] == "request" and one.get("command") == 69]
    assert len(served) < 100
    kinds = [flood.frame().type for _ in range(200)]
    assert kinds == [frames.RESPONSE, frames.NOTIFICATION] * 100


TOML = '[[rule]]\ncommand = "GetMachineInfo"\nfrom = 2\nto = 3\nminor_error = ["ControlBlocked"]\n'


@pytest.mark.parametrize(("suffix", "text"), [("toml", TOML), ("json", json.dumps(tomllib.loads(TOML)))])
def test_scenario_files(bench: Bench, tmp_path: Path, suffix: str, text: str) -> None:
    path = tmp_path / f"scenario.{suffix}"
    path.write_text(text)
    peer = bench.peer(bench.simulator("--scenario", str(path)))
    warnings = [peer.exchange("GetMachineInfo").minor_error for _ in range(4)]
    assert warnings == [0, MinorError.ControlBlocked, MinorError.ControlBlocked, 0]


@pytest.mark.parametrize(
    ("rule", "complaint"),
    [
        ("command=11", "it does nothing"),
        ("command=11 dealy=5", "'dealy' is not known here"),
        ("command=999999 no_answer", "there is no command 999999"),
        ("request=0 no_answer", "request is a whole number from 1"),
        ("request=1 from=2 no_answer", "say either request, or from and to"),
        ("delay=soon", "delay is a whole number from 0"),
        ("major_error=Nonsense", "major_error"),
        ("corrupt=everything", "corrupt is one of"),
        ("reset=later", '"instead", "middle" or "after"'),
        ("junk=xyz", "hex:DIGITS"),
        ("no_answer=5", "no_answer is true"),
        ("burst=5 of=GetNothing", "there is no command 'GetNothing'"),
        ("silent delay=5", "'delay' is not known here"),
        ("drop_on_accept=gently", "drop_on_accept"),
        ("wrong_command_id=70000", "from 0 to 65535"),
        ("command_error=99999", "from 0 to 65535"),
        ("major_error=99999999999", "from 1 to 4294967295"),
        ("minor_error=ControlBlocked,4294967296", "from 1 to 4294967295"),
        pytest.param(f"delay={'9' * 400}", "from 0 to 4294967295", id="long delay"),
        ("burst=1 size=4294967295", "size is a whole number from 0 to"),
        ("silent=false", "silent is true"),
        ("delay=5 size=3", "size says something of a burst"),
        ("delay=5 of=11", "of says something of a burst"),
        ("delay=5 later=3", "later says something of a duplicate"),
        ("freeze=5", "freeze is true"),
        ("take_control=amid", '"ahead" or "behind"'),
        ("restart=soon", "restart is a whole number from 0"),
        ("from=5 to=3 delay=1", "to=3 comes before from=5"),
    ],
)
def test_mistakes_in_rules_are_named(catalogue: Catalogue, rule: str, complaint: str) -> None:
    with pytest.raises(ScenarioError, match=complaint) as caught:
        Scenario().add(parse_text(rule), catalogue)
    assert str(caught.value).startswith(f"rule ({rule.split()[0].split('=')[0]}")


@pytest.mark.parametrize(
    ("text", "complaint"),
    [
        ("x = [", "is not TOML"),
        ("x = 1", "has no rules"),
        pytest.param("x = " + "[" * 5000, "is not TOML", id="deeply nested"),
        ("y = 1\n[[rule]]\nsplit = true", "unknown entry 'y'"),
    ],
)
def test_mistakes_in_files_are_named(tmp_path: Path, text: str, complaint: str) -> None:
    path = tmp_path / "scenario.toml"
    path.write_text(text)
    with pytest.raises(ScenarioError, match=complaint):
        read_file(path)


def test_a_stream_of_nonsense_ends_the_connection(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    peer.socket.sendall(b"GET / HTTP/1.1\r\n\r\n")
    simulator.wait_for("not-a-frame")
    with suppress(ConnectionResetError):  # which is how it ends if there is something it has not read
        assert peer.until_end() == b""
    simulator.wait_for("closed", connection=1)


def test_a_host_that_is_not_known_is_said_in_plain_words() -> None:
    error = socket.gaierror(socket.EAI_NONAME, "Name or service not known")
    assert _why_not("nohost", 1, error) == "Cannot listen on nohost: Name or service not known."


@pytest.mark.parametrize("option", ["--clock", "--notify-every", "--motor-interval", "--blob-size"])
def test_options_have_bounds(option: str, capsys: pytest.CaptureFixture[str]) -> None:
    with pytest.raises(SystemExit):
        parse([option, "9" * 400])
    assert "is not a whole number from 0 to" in capsys.readouterr().err


def test_port_in_use_is_said_in_plain_words(catalogue: Catalogue) -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
        with pytest.raises(SimulatorFailed, match=f"Port {port} on 127.0.0.1 is already in use"):
            with SimulatorProcess("--port", str(port), catalogue=catalogue.path):
                pass
