"""The command line: what it prints, and how it ends. Most run in this process; what needs a terminal, a pipe or a
signal runs as users run it."""

from __future__ import annotations

import json
import os
import re
import shlex
import signal
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from samples import messages, wire_records
from terminal import VORLINKIT, at_terminal, without_colours
from vorlinkit.catalogue import Catalogue, Command, Message, MessageKind, ScalarField, load
from vorlinkit.cli import main
from vorlinkit.cli.arguments import Host, host
from vorlinkit.cli.decode import plain
from vorlinkit.cli.exits import UsageError
from vorlinkit.cli.hints import folded
from vorlinkit.cli.values import _given, _parameter, _parameters, call_values
from vorlinkit.client import backend
from vorlinkit.client.methods import Methods, SubscribeMethods
from vorlinkit.client.records import to_dict
from vorlinkit.simulator import SimulatorProcess
from vorlinkit.wire import coder

MOTOR = "automated_device_id=AD1 attached_motor_number=1"
MISBEHAVIOUR = (
    "command=GetServerTime no_answer",
    "command=GetHeaderVersions short_payload",
    "command=GetRemoteConnections close",
    "command=GetSoftwareVersions junk=8",
    "command=GetLogFlushBehaviour minor_error=UnknownRequestVersion",
    "command=GetServerStatus delay=1600",
)

Captured = pytest.CaptureFixture[str]


@pytest.fixture(scope="module")
def machine() -> Iterator[SimulatorProcess]:
    with SimulatorProcess("--strict-control", "--motor-interval", "20", rules=MISBEHAVIOUR) as simulator:
        yield simulator


@pytest.fixture(scope="module")
def known() -> Catalogue:
    return load()


def words(line: str, machine: SimulatorProcess | None = None) -> list[str]:
    """A command line; HOST stands for the simulator."""
    where = f"{machine.host}:{machine.port}" if machine else "HOST"
    return [where if word == "HOST" else word for word in shlex.split(line)]


# -- without a machine -------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("line", "code", "out", "err"),
    [
        ("commands attachedmotors", 0, r'^{"id": 169, "name": "GetAttachedMotors",.*"takes": "automated_', ""),
        ("commands motor --table", 0, r"(?m)^159  SetMotorPosition +change +automated_device_id, .*_pos", ""),
        ("commands motr", 2, "", "No command has 'motr' in it"),
        ("describe set_motor_position", 0, r'"effect": "change".*{"field": "motor_position", "kind": "u16"', ""),
        ("describe 0x50 --table", 0, r"(?s)^GetModeListWithNotification, .*\nGetModeListWithNotificationGal", ""),
        ("describe CaptureFrame --table", 0, r"\n      SimultaneousCapture +OptionID 5\n        enable +u8 ", ""),
        ("describe GetMotorPositon", 2, "", "Did you mean GetMotorPosition"),
        ("status motorposition", 0, r'(?s)^({"type": "[GS]etMotorPosition\w+", "standing": "confirmed".*?\n){5}$', ""),
        ("--table status motor --standing confirmed", 0, r"(?s)^payload .*\n\d+ confirmed\n$", ""),
        ("decode GetAttachedMotorsResponse 0000 41:44:31:00 0x01 0103 ffee", 0, '_type": 3}]}, "left_over": "ffee"}', ""),
        ("decode --table getattachedmotorsresponse 00024144310000", 0, r"0x0002|confirmed\n +command_error +2 \(Un", ""),
        ("decode SetMotorPositionRequest 4144310001012c", 0, r'"attached_motor_number": 1, "motor_position": 300', ""),
        ("decode GetAttachedMotorsResponse 00004144310002010302", 5, "", r"listOfMotors\[1\].MotorType, byte 10 of 10"),
        ("decode GetAttachedMotorsResponse 0000414", 2, "", "HEX: .* 7 digits are no whole bytes"),
        ("decode GetAttachedMotorsResponse 0g", 2, "", "HEX: .* 'g' is none"),
        ("decode GetAttachedMotors 00", 2, "", "its payloads are GetAttachedMotorsRequest or GetAttachedMotorsResp"),
        ("decode GetAttachedMotorResponse 00", 2, "", "Did you mean GetAttachedMotorsResponse"),
        ("watc HOST GetMotorPosition", 2, "", "there is no 'watc'. Did you mean watch?"),
        ("info HOST --jsn", 2, "", "vorlinkit info: '--jsn' is too much. Did you mean --json?"),
        ("info", 2, "", "arguments are required: host"),
        ("info HOST --timeout 0", 2, "", "'0' is not a number of seconds above 0"),
        ("completion csh", 2, "", "there is no 'csh'"),
        ("simulate --port x", 2, "", "vorlinkit simulate: error: argument --port"),
        ("info 127.0.0.1:1", 3, "", "no connection to 127.0.0.1:1: .*refused"),
        ("ask HOST GetMotorPosition position=1", 2, "", r"no field 'position'. It takes automated_device_id \(text\), "),
        ("ask HOST GetMotorPosition motor_numbr=1", 2, "", "Did you mean attached_motor_number?"),
        ("ask HOST SetMotorPosition AttachedMotorNumber=1", 2, "", "needs automated_device_id, motor_position as we"),
        ("ask HOST GetMachineInfo x=1", 2, "", "GetMachineInfo takes no fields"),
        (f"ask HOST GetMotorPosition {MOTOR} AutomatedDeviceID=AD2", 2, "", "automated_device_id is given twice"),
        ("ask HOST StartEjectorTest number_of_ejectors=1", 2, "", "follows from list_of_ejectors; leave it out"),
        ("ask HOST StartEjectorTest list_of_ejectors=[", 2, "", "list_of_ejectors takes JSON"),
        (f"ask HOST SetMotorPosition {MOTOR} motor_position=99999 --yes", 2, "", "from 0 to 65535, not 99999"),
        (f"ask HOST SetMotorPosition {MOTOR} motor_position=high --yes", 2, "", "takes a whole number .*'high'"),
        ("ask HOST GetStatistics statistics_id=lampuze", 2, "", "Did you mean Lamp Use?"),
        ("ask HOST 80", 2, "", "may be GetModeListWithNotification or GetModeListWithNotificationGallix"),
        ("ask HOST NoOpCommand --force", 2, "", "say how --control is taken"),
        (f"ask HOST SetMotorPosition {MOTOR} motor_position=1", 2, "", "Nothing was sent: .*--yes is needed"),
        ("watch HOST GetMachineInfo", 2, "", "has no notifications"),
        ("watch HOST GetMachineInfo --count 0", 2, "", "'0' is not a whole number above 0"),
    ],
)  # fmt: skip
def test_without_a_machine(line: str, code: int, out: str, err: str, capsys: Captured) -> None:
    ended = main(words(line))
    told = capsys.readouterr()
    assert (ended, bool(told.out), bool(told.err)) == (code, bool(out), bool(err)), told
    assert re.search(out, told.out) and re.search(err, told.err), told


@pytest.mark.parametrize(
    ("text", "found"),
    [
        ("sorter", Host("sorter", 50713)),
        ("10.0.0.1:5", Host("10.0.0.1", 5)),
        ("[fe80::1%eth0]:5", Host("fe80::1%eth0", 5)),
        ("[::1]", Host("::1", 50713)),
        ("::1", Host("::1", 50713)),
        *((text, None) for text in ("", ":5", "a:", "a:0", "a:65536", "a:b:c", "[::1", "[]:5", "a b")),
    ],
)
def test_hosts(text: str, found: Host | None) -> None:
    try:
        assert host(text) == found
    except Exception as error:
        assert found is None and "port" in str(error), error


def test_fields_are_the_parameters_of_every_method(known: Catalogue) -> None:
    for command in known.commands:
        names, _ = _parameters(getattr(Methods, command.snake))
        assert {_parameter(field, names) for field in _given(command)} == names - {"self", "timeout", "check"}
        if command.notification is not None:
            assert _parameters(getattr(SubscribeMethods, command.snake))[0] <= names | {"handler", "buffer"}


def test_values_by_the_kind_of_field(known: Catalogue, tmp_path: Path) -> None:
    (tmp_path / "chunk").write_bytes(b"\0\xff")
    options = '[["CaptureStage", {"Stage": 2}], {"alternative": "simultaneous_capture", "enable": 1}]'
    table = {
        ("GetMotorPosition", "AutomatedDeviceID=a=b", "attachedmotornumber=0x1f"): ("a=b", 31),
        ("GetStatistics", "statistics_id=lamp use"): (2,),
        ("GetStatistics", "statistics_id=010"): (10,),
        ("SendUpdatePackageChunk", f"chunk=@{tmp_path}/chunk"): (b"\0\xff",),
        ("SendUpdatePackageChunk", "chunk=00 ff:0A"): (b"\0\xff\x0a",),
        ("StartEjectorTest", 'list_of_ejectors=["E1", {"EjectorID": "E2"}, ["E3"]]'): (
            [("E1",), {"ejector_id": "E2"}, ("E3",)],
        ),
        ("SetVibratorCalibrationData", "ListOfCalibrationPoints=[[1, 2]]"): ([(1, 2)],),
        ("CaptureFrame", f"list_of_capture_options={options}"): (
            [(("CaptureStage", {"stage": 2}),), (("SimultaneousCapture", {"enable": 1}),)],
        ),
    }  # fmt: skip
    for (name, *given), values in table.items():
        found = _only_given(known.named(name), given)
        assert tuple(found.values()) == values
    for wrong in ("chunk=0", f"chunk=@{tmp_path}/none"):
        with pytest.raises(UsageError, match="chunk: "):
            _only_given(known.named("SendUpdatePackageChunk"), [wrong])


def _only_given(command: Command, given: list[str]) -> dict[str, object]:
    """The values of some fields of a call; the others are 0."""
    named = {folded(word.partition("=")[0]) for word in given}
    rest = [field for field in _given(command) if folded(field.attribute) not in named]
    words = [*given, *(f"{field.attribute}=0" for field in rest if isinstance(field, ScalarField))]
    found = call_values(command, words, getattr(Methods, command.snake))
    return dict(list(found.items())[: len(given)])


@pytest.mark.parametrize(
    ("command", "kind", "message"), messages("response", "notification"), ids=lambda x: getattr(x, "type", "")
)
def test_decode_shows_what_the_client_would_give(
    command: Command, kind: MessageKind, message: Message
) -> None:
    for record in wire_records(message):
        payload = coder.encode(message.fields, record)
        read, _ = coder.decode(message.fields, payload)
        client = getattr(backend.records(), f"decode_{command.snake}_{kind}")(payload)
        assert plain(command, message.fields, read) == to_dict(client, describe=True)


# -- with a machine ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("line", "code", "out", "err"),
    [
        ("info HOST", 0, r'"client_id": 1, "serial_number": "SIM-0001".*"module_count": 2}\n$', ""),
        ("ask HOST GetMotorPosition --json " + MOTOR, 0, r'^{"command_error": 0, "command_error_desc": "Success", ', ""),
        ("ask HOST GetAttachedMotors automated_device_id=AD1 --table", 0, r"motor_type\n +1 +3\n +2 +5\n$", ""),
        ("ask HOST NoOpCommand", 0, "^{}\n$", ""),
        (f"ask HOST SetMotorPosition {MOTOR} motor_position=0x64 --yes --control", 0, '_motor_position": 100}', ""),
        (f"ask HOST SetMotorPosition {MOTOR} motor_position=1 --yes", 1, "", "ExclusiveControlRequired.*--control"),
        ("ask HOST FlushLog log_name=x --yes --control --user u --force", 1, '"Invalid log name; "', "Invalid log name"),
        ("ask HOST GetServerTime --timeout 0.2", 4, "", "did not answer within 0.2 s"),
        ("ask HOST GetHeaderVersions", 5, "", "cannot be read at listOfHeaders"),
        ("ask HOST GetRemoteConnections", 3, "", "broke before the answer came"),
        ("ask HOST GetSoftwareVersions", 5, "", "is no VORLIN response"),
        ("ask HOST GetLogFlushBehaviour", 0, '^{"flush_behaviour"', "warns: UnknownRequestVersion"),
        (f"watch HOST GetMotorPosition {MOTOR} --count 1", 0, r'^{"received": "20.*_motor_position": \d+}\n$', ""),
        (f"watch HOST GetMotorPosition {MOTOR} --for 0.3 --table", 0, r"^\d\d:.*automated_device_id AD1  att", ""),
        (f"watch HOST GetMotorPosition {MOTOR} --for 0.3 --count 99", 4, "received", r"\d of 99 notifications came"),
        ("watch HOST GetMotorPosition automated_device_id=X attached_motor_number=1", 1, "", "Invalid Automated"),
        ("doctor HOST --timeout 2", 0, r'(?s)"VORLIN", "ok": true.*"control", "ok": true.*"206 supported"', ""),
    ],
)  # fmt: skip
def test_with_a_machine(
    line: str, code: int, out: str, err: str, machine: SimulatorProcess, capsys: Captured
) -> None:
    test_without_a_machine(shlex.join(words(line, machine)), code, out, err, capsys)


@pytest.mark.parametrize(
    ("rule", "code", "check"),
    [
        ("silent", 4, "VORLIN"),
        ("drop_on_accept=close", 5, "VORLIN"),
        ("corrupt=protocol", 5, "VORLIN"),
        ("request=2 close", 3, "session"),
    ],
)
def test_doctor_tells_what_is_wrong(rule: str, code: int, check: str, capsys: Captured) -> None:
    with SimulatorProcess(rules=[rule]) as ill:
        ended = main(["doctor", f"{ill.host}:{ill.port}", "--timeout", "0.3"])
    failed = [one for one in map(json.loads, capsys.readouterr().out.splitlines()) if not one["ok"]]
    assert (ended, [one["check"] for one in failed]) == (code, [check])
    assert failed[0]["advice"]


def test_a_watch_outlives_a_broken_connection(machine: SimulatorProcess) -> None:
    watch = [*VORLINKIT, *words(f"watch HOST GetMotorPosition {MOTOR} --count 2", machine)]
    with subprocess.Popen(watch, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        assert process.stdout and "received" in process.stdout.readline()
        machine.control("reset")
        out, err = process.communicate(timeout=30)
    assert (process.returncode, out.count("received")) == (0, 1)
    assert re.fullmatch(
        r"vorlinkit: the connection is lost: .*\n(vorlinkit: connected again after .* s\n)?", err
    )


# -- as a process ------------------------------------------------------------------------------------


@pytest.mark.parametrize(("way", "code"), [("interrupt", 130), ("close", 0)])
def test_a_stop_is_quiet(way: str, code: int) -> None:
    with SimulatorProcess("--notify-every", "20") as simulator:
        watch = [*VORLINKIT, *words(f"watch HOST GetMotorPosition {MOTOR}", simulator)]
        with subprocess.Popen(watch, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
            assert process.stdout and process.stderr and "received" in process.stdout.readline()
            if way == "interrupt":
                process.send_signal(signal.SIGINT)
            else:
                process.stdout.close()
            assert (process.wait(20), process.stderr.read()) == (code, "")


def test_at_a_terminal(machine: SimulatorProcess) -> None:
    ask = [*VORLINKIT, *words(f"ask HOST SetMotorPosition {MOTOR} motor_position=7 --control", machine)]
    code, shown = at_terminal(ask, {"Send it? [y/N] ": "y\n"})
    assert code == 0 and "\x1b[36mnew_target_motor_position\x1b[0m  7\n" in shown
    code, plainly = at_terminal(ask, {"Send it? [y/N] ": "y\n"}, NO_COLOR="1")
    assert (code, plainly) == (0, without_colours(shown))
    code, shown = at_terminal(ask, {"Send it? [y/N] ": "n\n"})
    assert (code, shown.splitlines()[-1]) == (2, "vorlinkit: Nothing was sent.")
    code, shown = at_terminal([*VORLINKIT, "commands", "capture", "--no-colour"])
    assert code == 0 and "…\n" in shown and all(len(line) <= 110 for line in shown.splitlines())


@pytest.mark.parametrize("bars", ["plain", "tqdm"])
def test_a_long_wait_is_told(bars: str, machine: SimulatorProcess, tmp_path: Path) -> None:
    path = os.environ.get("PYTHONPATH", "")
    if bars == "plain":
        (tmp_path / "tqdm.py").write_text("raise ImportError")
        path = os.pathsep.join((str(tmp_path), path))
    else:
        pytest.importorskip(bars)
    ask = [*VORLINKIT, *words("ask HOST GetServerStatus --json", machine)]
    code, shown = at_terminal(ask, PYTHONPATH=path)
    assert code == 0 and re.search(r"\rwaiting for GetServerStatus at \S+\.\.\. [^\r]+\r *\r{", shown)


def test_debug_shows_where() -> None:
    done = subprocess.run([*VORLINKIT, "--debug", "info", "127.0.0.1:1"], capture_output=True, text=True)
    assert done.returncode == 3 and done.stderr.rstrip().splitlines()[-1].startswith(
        "vorlinkit.client.errors.Conn"
    )


@pytest.mark.parametrize(
    ("typed", "offered"),
    [
        ("in", {"info"}),
        ("ask 10.0.0.1:5 SetMotorP", {"SetMotorPosition"}),
        ("ask --timeout 3 [::1]:5 SetMotorPosition AutomatedDeviceID=1 mot", {"motor_position="}),
        ("--json completion b", {"bash"}),
        ("status --standing ", set()),
        ("decode GetServerTimeWithNotificationsN", {"GetServerTimeWithNotificationsNotification"}),
        ("simulate --strict", {"--strict-control", "--strict-client-id"}),
    ],
)
def test_bash_completes(typed: str, offered: set[str], capsys: Captured, tmp_path: Path) -> None:
    assert main(["completion", "bash"]) == 0
    script = tmp_path / "script"
    script.write_text(
        capsys.readouterr().out + 'COMP_LINE=$1 COMP_POINT=${#1}; _vorlinkit; echo "${COMPREPLY[@]}"\n'
    )
    done = subprocess.run(["bash", script, f"vorlinkit {typed}"], capture_output=True, text=True, timeout=30)
    assert set(done.stdout.split()) == offered, done.stderr
