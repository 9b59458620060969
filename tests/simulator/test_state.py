"""What the simulated machine remembers, who may do what, and who is told."""

from __future__ import annotations

import os
import signal
from typing import cast

import pytest
from conftest import Bench
from vorlinkit.simulator.state.clock import LATEST, Clock
from vorlinkit.wire import frames
from vorlinkit.wire.frames import MajorError
from vorlinkit.wire.records import Record


def test_client_ids_are_kept_and_used_again(bench: Bench) -> None:
    simulator = bench.simulator()
    first, second = bench.peer(simulator), bench.peer(simulator)
    assert (first.client_id, second.client_id, first.identify()) == (1, 2, 1)
    first.socket.close()
    simulator.wait_for("closed", connection=1)
    assert bench.peer(simulator).client_id == 1


def test_protocol_errors(bench: Bench) -> None:
    peer = bench.peer(bench.simulator())

    def refusal(frame: bytes) -> int:
        peer.socket.sendall(frame)
        return peer.frame().major_error

    assert refusal(frames.request(11)) == 0
    assert refusal(frames.request(11, client_id=9)) == MajorError.IncorrectClientId
    assert refusal(frames.request(11, access_key=bytes(4))) == MajorError.AccessKeyIncorrect
    assert refusal(frames.request(999)) == MajorError.UnsupportedCommandId
    assert refusal(frames.request(11, b"x")) == MajorError.DataLengthMismatch
    assert refusal(frames.request(7, b"\0")) == MajorError.DataLengthMismatch
    assert refusal(frames.request(7, b"\0\x0b\0")) == MajorError.DataLengthMismatch
    assert refusal(frames.notification(11)) == MajorError.UnexpectedHeaderType
    wrong_length = bytearray(frames.request(11))
    wrong_length[5] = 15
    assert refusal(bytes(wrong_length)) == MajorError.HeaderLengthIncorrect
    newer = bytearray(frames.request(11))
    newer[2] = 2
    peer.socket.sendall(newer)
    assert peer.frame().minor_error == 1
    unknown = bytearray(frames.request(11))
    unknown[3] = 7
    assert refusal(bytes(unknown)) == MajorError.UnsupportedHeaderType
    with pytest.raises((EOFError, ConnectionResetError)):
        peer.frame()


def test_strict_client_id_and_control(bench: Bench) -> None:
    simulator = bench.simulator("--strict-client-id", "--strict-control")
    peer = bench.peer(simulator, identified=False)
    assert peer.exchange("GetMachineInfo").major_error == MajorError.ClientIdRequired
    peer.identify()
    assert peer.exchange("GetMachineInfo").major_error == 0
    assert peer.exchange("SetServerTime", Timestamp=1).major_error == MajorError.ExclusiveControlRequired
    assert peer.ask("GetExclusiveControl") == {"CommandError": 0}
    assert peer.ask("SetServerTime", Timestamp=1) == {"CommandError": 0}
    blocked = MajorError.ExclusiveControlRequired | MajorError.ControlBlocked
    assert bench.peer(simulator).exchange("SetServerTime", Timestamp=1).major_error == blocked


def test_exclusive_control_has_one_holder_and_others_are_told(bench: Bench) -> None:
    simulator = bench.simulator()
    first, second, watcher = (bench.peer(simulator) for _ in range(3))
    register, status = "RegisterForExclusiveControlNotifications", "ExclusiveControlStatus"
    assert watcher.ask(register) == {"CommandError": 0, status: 0}
    assert first.ask("GetExclusiveControl")["CommandError"] == 0
    assert watcher.notification(register) == {status: 2}
    assert second.ask("GetExclusiveControl")["CommandError"] == 2
    assert second.ask("ReleaseExclusiveControl")["CommandError"] == 2
    assert second.ask("ForcedGetExclusiveControlWithUser", UserName="")["CommandError"] == 4
    assert second.ask("ForcedGetExclusiveControlWithUser", UserName="Ann")["CommandError"] == 0
    assert first.notification("GetExclusiveControl") == {"ControlStatus": 2}
    assert watcher.notification(register) == {status: 2}
    second.socket.close()
    assert watcher.notification(register) == {status: 0}
    assert watcher.ask("GetExclusiveControlWithUser", UserName="Bob")["CommandError"] == 0
    assert watcher.ask(register)[status] == 1
    assert watcher.ask("ReleaseExclusiveControl")["CommandError"] == 0


def test_clock(bench: Bench) -> None:
    simulator = bench.simulator("--clock", "1000")
    peer, other = bench.peer(simulator), bench.peer(simulator)
    assert peer.ask("GetServerTime") == {"Timestamp": 1000}
    other.ask("GetServerTimeWithNotifications", NotificationLevel=1)
    assert other.notification("GetServerTimeWithNotifications") == {"Timestamp": 1000}
    for late in ((1 << 53) + 1, LATEST):
        assert peer.ask("SetServerTime", Timestamp=late)["CommandError"] == 0
        assert other.notification("GetServerTimeWithNotifications") == {"Timestamp": late}
        assert peer.ask("GetServerTime") == {"Timestamp": late}
    running = Clock()
    running.set(LATEST)
    assert running.now() == LATEST


def test_identity(bench: Bench) -> None:
    peer = bench.peer(bench.simulator())
    ids = [
        item["CommandID"] for item in cast("list[Record]", peer.ask("GetSupportedCommands")["listOfCommands"])
    ]
    assert ids == sorted({command.id for command in bench.catalogue.commands})
    assert peer.ask("IsCommandSupported", CommandID=215) == {"IsSupported": 1}
    assert peer.ask("IsCommandSupported", CommandID=94) == {"IsSupported": 0}
    assert peer.ask("GetHeaderVersions")["NumberOfHeaders"] == 3
    assert peer.exchange("NoOpCommand").payload == b""


def test_logs_and_remote_access(bench: Bench) -> None:
    peer = bench.peer(bench.simulator())
    assert [peer.ask("FlushLog", LogName=name)["CommandError"] for name in ("Audit", "Nothing")] == [0, 1]
    assert [peer.ask("SelectLogFlushBehaviour", FlushBehaviour=one)["CommandError"] for one in (2, 9)] == [
        0,
        1,
    ]
    assert peer.ask("GetLogFlushBehaviour") == {"FlushBehaviour": 2}
    status = peer.ask("GetRemoteAccessStatus", NotificationLevel=1)
    assert status == peer.notification("GetRemoteAccessStatus") == {"Status": 0, "Token": ""}
    assert [peer.ask("StartRemoteAccess")["CommandError"] for _ in range(2)] == [0, 1]
    assert peer.notification("GetRemoteAccessStatus") == {"Status": 1, "Token": "SIM-TOKEN-1"}
    assert peer.ask("GetRemoteConnections")["NumberOfConnections"] == 1
    assert [peer.ask("StopRemoteAccess")["CommandError"] for _ in range(2)] == [0, 1]


def test_motors_move_to_their_target_and_report_it(bench: Bench) -> None:
    simulator = bench.simulator("--motor-interval", "1")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)
    motor: Record = {"AutomatedDeviceID": "AD1", "AttachedMotorNumber": 2}
    watcher.ask("GetMotorPosition", **motor, NotificationLevel=1)
    answer = peer.ask("SetMotorPosition", **motor, MotorPosition=250)
    assert answer == {"CommandError": 0, **motor, "NewTargetMotorPosition": 250}
    seen = [watcher.notification("GetMotorPosition") for _ in range(4)]
    assert [(one["ActualMotorPosition"], one["SetMotorPosition"]) for one in seen] == [
        (0, 0),
        (100, 250),
        (200, 250),
        (250, 250),
    ]
    assert peer.ask("SetMotorPosition", **motor, MotorPosition=5000)["CommandError"] == 3
    assert peer.ask("SetClosedLoopControlStatus", AutomatedDeviceID="AD1", ClosedLoopControlStatus=1)
    refused = peer.ask("SetMotorPosition", **motor, MotorPosition=1)
    assert (refused["CommandError"], refused["NewTargetMotorPosition"]) == (2, 1000)
    assert peer.ask("GetAttachedMotors", AutomatedDeviceID="AD9") == {
        "CommandError": 1,
        "AutomatedDeviceID": "AD9",
        "NumberOfMotors": 0,
        "listOfMotors": [],
    }


def test_classes_defects_and_sensitivities_hold_what_was_set(bench: Bench) -> None:
    simulator = bench.simulator("--notify-on-change-only")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)

    broken: Record = {"ClassName": "Broken", "Division": "D1"}
    watcher.ask("GetClassInfo", **broken, NotificationLevel=1)
    watcher.ask("GetClassesList", NotificationLevel=1)
    assert peer.ask("SetClassSensitivityLevel", **broken, SensitivityLevel=70)["CommandError"] == 0
    assert watcher.notification("GetClassInfo")["CurrentSensitivityLevel"] == 70
    assert peer.ask("SetClassStateDestination", **broken, State=0, Destination=2)["CommandError"] == 0
    assert watcher.notification("GetClassesList") == {
        "NumberOfClasses": 1,
        "listOfClasses": [{"ClassName": "Broken", "DivisionName": "D1", "Destination": 2, "State": 0}],
        "ListAction": 2,
    }
    assert peer.ask("SetClassStateDestination", **broken, State=9, Destination=9)["CommandError"] == 0x000A

    stone: Record = {"Defect": "Stone", "Division": "D2"}
    watcher.ask("GetDefectInfo", **stone, NotificationLevel=1)
    assert (
        peer.ask("SetDefectRemovalLevel", Defect="Glass", Division="D2", RemovalLevel=9)["CommandError"] == 0
    )
    assert peer.ask("SetDefectState", **stone, State=0)["CommandError"] == 0
    assert watcher.notification("GetDefectInfo") == {**stone, "State": 0, "CurrentRemovalLevel": 3}
    assert (
        peer.ask("SetAdditionalDefectInfo", **stone, Name="Note", Information="wet")["Information"] == "wet"
    )
    assert peer.ask("GetAdditionalDefectInfo", **stone, Name="Note")["Information"] == "wet"
    assert peer.ask("GetAdditionalDefectInfo", **stone, Name="None")["CommandError"] == 2

    key: Record = {"SensitivityType": 1, "Division": 0, "CameraPosition": 2, "Side": 1, "ListIndex": 0}
    watcher.ask("GetSensitivityValue", NotificationsRequired=1, **key)
    assert peer.ask("SetSensitivityValue", **key, NewValue=77)["CommandError"] == 0
    assert watcher.notification("GetSensitivityValue") == {**key, "SensitivityValue": 77}
    assert peer.ask("SetSensitivityValue", **{**key, "Side": 9}, NewValue=1)["CommandError"] == 2


def test_level_zero_ends_a_subscription(bench: Bench) -> None:
    simulator = bench.simulator("--notify-on-change-only")
    peer = bench.peer(simulator)
    stone: Record = {"Defect": "Stone", "Division": "D2"}
    for level in (1, 0):
        peer.ask("GetDefectInfo", **stone, NotificationLevel=level)
    peer.ask("SetDefectState", **stone, State=0)
    peer.ask("GetServerTime")
    assert peer.notifications == []


def test_feeders_and_other_pairs_are_remembered_from_their_layouts(bench: Bench) -> None:
    simulator = bench.simulator("--notify-on-change-only")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)
    feeder: Record = {"FeedConfigurerID": "FeedConfigurer2"}
    watcher.ask("GetFeedRate", **feeder, NotificationLevel=1)
    peer.ask("SetFeedRate", FeedConfigurerID="FeedConfigurer1", FeedRate=11)
    peer.ask("SetFeedRate", **feeder, FeedRate=80)
    assert watcher.notification("GetFeedRate") == {**feeder, "FeedRate": 80, "ActualFeedRate": 80}
    assert peer.ask("GetFeedRate", FeedConfigurerID="FeedConfigurer1", NotificationLevel=0)["FeedRate"] == 11
    peer.ask("SetWiperInterval", WiperInterval=600)
    assert peer.ask("GetWiperInterval", NotificationLevel=0)["WiperInterval"] == 600


def test_disabled_objects_are_listed_and_told(bench: Bench) -> None:
    simulator = bench.simulator("--notify-on-change-only")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)
    watcher.ask("GetDisabledSystemObjects", NotificationLevel=1)
    for enable, left in ((0, ["Lamp3"]), (0, ["Lamp3"]), (1, [])):
        peer.ask("EnableDisableSystemObject", SystemObjectID="Lamp3", Enable=enable)
        listed = peer.ask("GetDisabledSystemObjects", NotificationLevel=0)["listOfSystemObjects"]
        assert [one["SystemObjectID"] for one in cast("list[Record]", listed)] == left
    told = [watcher.notification("GetDisabledSystemObjects") for _ in range(2)]
    assert [(one["SystemObjectID"], one["ListAction"]) for one in told] == [("Lamp3", 1), ("Lamp3", 3)]


def test_server_status_is_told_at_the_end(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    peer.ask("GetServerStatus", NotificationLevel=1)
    simulator.stop()
    assert peer.notification("GetServerStatus")["RestartStatus"] == 0
    assert simulator.returncode == 0


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signals_end_it_cleanly(bench: Bench, number: int) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    os.kill(simulator.pid, number)
    simulator.wait_for("stopped")
    assert peer.until_end() == b""
    simulator.stop()
    assert simulator.returncode == 0
    assert not any("Traceback" in line for line in simulator.output)


def test_it_says_what_it_is(bench: Bench) -> None:
    standings = bench.catalogue.standings()
    words = " ".join(bench.simulator().output)
    assert "simulator, not a machine" in words
    assert f"{standings['confirmed']} are confirmed" in words
    assert f"{standings['assumed']} are assumed" in words
