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


def altered(at: int, value: int) -> bytes:
    """A request whose header has another byte somewhere."""
    frame = bytearray(frames.request(11))
    frame[at] = value
    return bytes(frame)


def test_protocol_errors(bench: Bench) -> None:
    peer = bench.peer(bench.simulator())
    for frame, *errors in (
        (frames.request(11), 0, 0),
        (frames.request(11, client_id=9), MajorError.IncorrectClientId, 0),
        (frames.request(11, access_key=bytes(4)), MajorError.AccessKeyIncorrect, 0),
        (frames.request(999), MajorError.UnsupportedCommandId, 0),
        (frames.request(11, b"x"), MajorError.DataLengthMismatch, 0),
        (frames.request(7, b"\0"), MajorError.DataLengthMismatch, 0),
        (frames.request(7, b"\0\x0b\0"), MajorError.DataLengthMismatch, 0),
        (frames.notification(11), MajorError.UnexpectedHeaderType, 0),
        (altered(5, 15), MajorError.HeaderLengthIncorrect, 0),
        (altered(2, 2), 0, 1),  # a newer version
        (altered(3, 7), MajorError.UnsupportedHeaderType, 0),
    ):
        peer.socket.sendall(frame)
        answer = peer.frame()
        assert [answer.major_error, answer.minor_error] == errors, frame
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
    assert first.error("GetExclusiveControl") == 0
    assert watcher.notification(register) == {status: 2}
    assert second.error("GetExclusiveControl") == 2
    assert second.error("ReleaseExclusiveControl") == 2
    assert second.error("ForcedGetExclusiveControlWithUser", UserName="") == 4
    assert second.error("ForcedGetExclusiveControlWithUser", UserName="Ann") == 0
    assert first.notification("GetExclusiveControl") == {"ControlStatus": 2}
    assert watcher.notification(register) == {status: 2}
    second.socket.close()
    assert watcher.notification(register) == {status: 0}
    assert watcher.error("GetExclusiveControlWithUser", UserName="Bob") == 0
    assert watcher.ask(register)[status] == 1
    assert watcher.error("ReleaseExclusiveControl") == 0


def test_clock(bench: Bench) -> None:
    simulator = bench.simulator("--clock", "1000")
    peer, other = bench.peer(simulator), bench.peer(simulator)
    assert peer.ask("GetServerTime") == {"Timestamp": 1000}
    other.ask("GetServerTimeWithNotifications", NotificationLevel=1)
    assert other.notification("GetServerTimeWithNotifications") == {"Timestamp": 1000}
    for late in ((1 << 53) + 1, LATEST):
        assert peer.error("SetServerTime", Timestamp=late) == 0
        assert other.notification("GetServerTimeWithNotifications") == {"Timestamp": late}
        assert peer.ask("GetServerTime") == {"Timestamp": late}
    running = Clock()
    running.set(LATEST)
    assert running.now() == LATEST


def test_identity(bench: Bench) -> None:
    peer = bench.peer(bench.simulator())
    listed = cast("list[Record]", peer.ask("GetSupportedCommands")["listOfCommands"])
    assert [one["CommandID"] for one in listed] == sorted({one.id for one in bench.catalogue.commands})
    assert [peer.ask("IsCommandSupported", CommandID=one)["IsSupported"] for one in (215, 94)] == [1, 0]
    assert peer.ask("GetHeaderVersions")["NumberOfHeaders"] == 3
    assert peer.exchange("NoOpCommand").payload == b""


def test_logs_and_remote_access(bench: Bench) -> None:
    peer = bench.peer(bench.simulator())
    assert [peer.error("FlushLog", LogName=name) for name in ("Audit", "Nothing")] == [0, 1]
    assert [peer.error("SelectLogFlushBehaviour", FlushBehaviour=one) for one in (2, 9)] == [0, 1]
    assert peer.ask("GetLogFlushBehaviour") == {"FlushBehaviour": 2}
    status = peer.ask("GetRemoteAccessStatus", NotificationLevel=1)
    assert status == peer.notification("GetRemoteAccessStatus") == {"Status": 0, "Token": ""}
    assert [peer.error("StartRemoteAccess") for _ in range(2)] == [0, 1]
    assert peer.notification("GetRemoteAccessStatus") == {"Status": 1, "Token": "SIM-TOKEN-1"}
    assert peer.ask("GetRemoteConnections")["NumberOfConnections"] == 1
    assert [peer.error("StopRemoteAccess") for _ in range(2)] == [0, 1]


def test_motors_move_to_their_target_and_report_it(bench: Bench) -> None:
    simulator = bench.simulator("--motor-interval", "1")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)
    motor: Record = {"AutomatedDeviceID": "AD1", "AttachedMotorNumber": 2}
    watcher.ask("GetMotorPosition", **motor, NotificationLevel=1)
    answer = peer.ask("SetMotorPosition", **motor, MotorPosition=250)
    assert answer == {"CommandError": 0, **motor, "NewTargetMotorPosition": 250}
    seen = [watcher.notification("GetMotorPosition") for _ in range(4)]
    moved = [(one["ActualMotorPosition"], one["SetMotorPosition"]) for one in seen]
    assert moved == [(0, 0), (100, 250), (200, 250), (250, 250)]
    assert peer.error("SetMotorPosition", **motor, MotorPosition=5000) == 3
    assert peer.ask("SetClosedLoopControlStatus", AutomatedDeviceID="AD1", ClosedLoopControlStatus=1)
    refused = peer.ask("SetMotorPosition", **motor, MotorPosition=1)
    assert (refused["CommandError"], refused["NewTargetMotorPosition"]) == (2, 1000)
    unknown: Record = {"AutomatedDeviceID": "AD9"}
    none = {"CommandError": 1, **unknown, "NumberOfMotors": 0, "listOfMotors": []}
    assert peer.ask("GetAttachedMotors", **unknown) == none


def test_classes_defects_and_sensitivities_hold_what_was_set(bench: Bench) -> None:
    simulator = bench.simulator("--notify-on-change-only")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)

    broken: Record = {"ClassName": "Broken", "Division": "D1"}
    watcher.ask("GetClassInfo", **broken, NotificationLevel=1)
    watcher.ask("GetClassesList", NotificationLevel=1)
    assert peer.error("SetClassSensitivityLevel", **broken, SensitivityLevel=70) == 0
    assert watcher.notification("GetClassInfo")["CurrentSensitivityLevel"] == 70
    assert peer.error("SetClassStateDestination", **broken, State=0, Destination=2) == 0
    listed = [{"ClassName": "Broken", "DivisionName": "D1", "Destination": 2, "State": 0}]
    changed = {"NumberOfClasses": 1, "listOfClasses": listed, "ListAction": 2}
    assert watcher.notification("GetClassesList") == changed
    assert peer.error("SetClassStateDestination", **broken, State=9, Destination=9) == 0x000A

    stone: Record = {"Defect": "Stone", "Division": "D2"}
    watcher.ask("GetDefectInfo", **stone, NotificationLevel=1)
    assert peer.error("SetDefectRemovalLevel", Defect="Glass", Division="D2", RemovalLevel=9) == 0
    assert peer.error("SetDefectState", **stone, State=0) == 0
    assert watcher.notification("GetDefectInfo") == {**stone, "State": 0, "CurrentRemovalLevel": 3}
    assert (
        peer.ask("SetAdditionalDefectInfo", **stone, Name="Note", Information="wet")["Information"] == "wet"
    )
    assert peer.ask("GetAdditionalDefectInfo", **stone, Name="Note")["Information"] == "wet"
    assert peer.error("GetAdditionalDefectInfo", **stone, Name="None") == 2

    key: Record = {"SensitivityType": 1, "Division": 0, "CameraPosition": 2, "Side": 1, "ListIndex": 0}
    watcher.ask("GetSensitivityValue", NotificationsRequired=1, **key)
    assert peer.error("SetSensitivityValue", **key, NewValue=77) == 0
    assert watcher.notification("GetSensitivityValue") == {**key, "SensitivityValue": 77}
    assert peer.error("SetSensitivityValue", **{**key, "Side": 9}, NewValue=1) == 2


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


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, None])
def test_it_ends_cleanly_and_tells_its_status(bench: Bench, number: int | None) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    peer.ask("GetServerStatus", NotificationLevel=1)
    if number is not None:
        os.kill(simulator.pid, number)
        simulator.wait_for("stopped")
    simulator.stop()
    assert peer.notification("GetServerStatus")["RestartStatus"] == 0
    assert peer.until_end() == b""
    assert simulator.returncode == 0
    assert not any("Traceback" in line for line in simulator.output)
