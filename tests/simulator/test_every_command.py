"""Every command is answered, and every notification comes, each with a payload of its layout."""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import cast

import pytest
from conftest import ROOT, Bench
from vorlinkit import catalogue as catalogues
from vorlinkit.catalogue import Command, ScalarField
from vorlinkit.simulator.answer import Answer
from vorlinkit.simulator.state.clock import Clock
from vorlinkit.simulator.state.machine import Machine, MachineOptions
from vorlinkit.simulator.state.plausible import Plausible
from vorlinkit.simulator.state.subscriptions import Client
from vorlinkit.wire import coder, frames
from vorlinkit.wire.records import Record, Value, Variant

ON_EVENT_ONLY = (
    "GetExclusiveControl ForcedGetExclusiveControl RegisterForExclusiveControlNotifications "
    "GetExclusiveControlWithUser ForcedGetExclusiveControlWithUser GetServerStatus "
    "RequestModeRecallNotifications".split()
)
NAMES = {"ModeName": "User1", "ExistingModeName": "User1", "ClassName": "Good", "Defect": "Stone"}
DEVICE = {"AutomatedDeviceID": "AD1", "LogName": "System", "Name": "Description", "DeviceType": 1}
SETTINGS = {"FlushBehaviour": 1, "State": 1, "Destination": 1, "VoltageMeasurePoint": 1, "RemovalLevel": 5}
SENSITIVITY = {"ListIndex": 0, "NewValue": 10, "MotorPosition": 500, "CameraPosition": 1, "Side": 1}
VALUES: Record = {**NAMES, **DEVICE, **SETTINGS, **SENSITIVITY}
"""What the machine at hand takes."""
TASKS = set(
    "AbortRemoteUpdate Calibrate CaptureFrame CaptureFrameDorvex CaptureFrameEx CaptureFrameSequence "
    "CaptureHistogram CaptureMultipleHistograms EnableLampTestMode EnableLightingStrip GetDataDump "
    "GrabObjects RecallMode RequestTestWipe ResetToCalibrationDefaults RestoreConfigurationFromBackup "
    "SetReverseSortState StartCapturableSignals StartEjectorTest StartSequentialLampTest StopEjectorTest "
    "UpdateUsingPackage".split()
)
"""What reports on itself, also where subscriptions are not confirmed."""
REFUSED = {"ReleaseExclusiveControl": 2, "StopRemoteAccess": 1}
"""What a client that has just connected may not do."""


def rows(value: Value) -> list[Record]:
    """What stands in a list."""
    return cast("list[Record]", value)


class Talk:
    """A machine with one client, without a socket between them."""

    def __init__(self, catalogue: catalogues.Catalogue, *prefer: str) -> None:
        self.catalogue = catalogue
        self.machine = Machine(catalogue, MachineOptions(prefer=prefer), Clock(1000))
        self.delivered: list[bytes] = []
        self.client = Client(1, self.delivered.append)
        self.machine.enter(self.client)
        self._requests = Plausible(lambda: 1000)

    def ask(self, command: Command | str, **values: Value) -> tuple[Answer, Record]:
        if isinstance(command, str):
            command = self.catalogue.named(command)
        payload, response = b"", Record()
        if command.request is not None:
            fields = command.request.fields
            payload = coder.encode(fields, self._requests.complete(fields, values))
        frame = frames.request(command.id, payload, self.client.id)
        size = frames.REQUEST_HEADER.size
        reply = self.machine.answer(self.client, frames.parse(frame[:size], frame[size:]))
        self.machine.follow_up(self.client, reply)
        assert reply.answer.major_error == 0
        if command.response is not None:
            response, left_over = coder.decode(command.response.fields, reply.answer.payload)
            assert left_over == 0
        return reply.answer, response

    def notifications(self, command: Command) -> Iterator[Record]:
        assert command.notification is not None
        for frame in self.delivered:
            payload = frame[frames.NOTIFICATION_HEADER.size :]
            if int.from_bytes(frame[6:8], "big") == command.id:
                record, left_over = coder.decode(command.notification.fields, payload)
                assert left_over == 0
                yield record


def test_every_command_is_answered_and_every_subscription_confirmed(catalogue: catalogues.Catalogue) -> None:
    for command in catalogue.commands:
        values = {**VALUES, "Division": 0} if command.family == "sensitivities" else VALUES
        talk = Talk(catalogue, command.name)
        first, response = talk.ask(command, **values)
        assert response.get("CommandError", 0) == REFUSED.get(command.name, 0), command.name
        again, _ = Talk(catalogue, command.name).ask(command, **values)
        assert first.payload == again.payload, f"{command.name} is answered differently each time"
        if command.notification is not None and command.name not in ON_EVENT_ONLY:
            assert list(talk.notifications(command)), f"{command.name}: {response}"


def test_on_change_only_tasks_still_report(catalogue: catalogues.Catalogue) -> None:
    told = set()
    for command in catalogue.commands:
        talk = Talk(catalogue, command.name)
        talk.machine.options = MachineOptions(notify_at_once=False)
        talk.ask(command, **VALUES)
        told |= {command.name} if talk.delivered else set()
    assert told == TASKS


def test_the_rest_is_told_when_it_happens(catalogue: catalogues.Catalogue) -> None:
    for name in ON_EVENT_ONLY:
        talk, other = Talk(catalogue), Talk(catalogue)
        talk.ask(name, NotificationLevel=1, UserName="Ann")
        assert not talk.delivered
        other.machine = talk.machine
        talk.machine.enter(other.client)
        other.ask("ForcedGetExclusiveControl")
        other.ask("RecallMode", ModeName="Fine")
        talk.machine.stop()
        assert list(talk.notifications(catalogue.named(name))), name


def test_a_task_reports_from_beginning_to_end(catalogue: catalogues.Catalogue) -> None:
    talk = Talk(catalogue)
    talk.ask("Calibrate", NotificationLevel=1)
    assert [one["Overview"] for one in talk.notifications(catalogue.named("Calibrate"))] == [1, 2, 4]


@pytest.mark.parametrize("kind", ["", "Archive"])
def test_every_kind_of_statistics(catalogue: catalogues.Catalogue, kind: str) -> None:
    talk = Talk(catalogue)
    key, seen = f"{kind}StatisticsID", set()
    ids = [row[key] for row in rows(talk.ask(f"GetSupported{kind}Statistics")[1]["listOfIDs"])]
    for number in ids:
        _, response = talk.ask(f"Get{kind}Statistics", **{key: number, "NotificationLevel": 0})
        point = rows(response.get("listOfDataPoints", [response]))[0]
        (variant,) = {one.name for one in point.values() if isinstance(one, Variant)}
        seen.add(variant)
    assert len(seen) == len(ids) > 5


def test_modes(bench: Bench) -> None:
    simulator = bench.simulator("--notify-on-change-only")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)
    watcher.ask("GetCurrentModeWithNotification", NotificationLevel=1)
    watcher.ask("GetModeListWithNotification", ModeType=0, NotificationLevel=1)
    watcher.ask("RequestModeRecallNotifications", NotificationLevel=1)

    peer.ask("CreateNewUserModeFromExisting", ExistingModeName="Fine", NewModeName="Night")
    added = watcher.notification("GetModeListWithNotification")
    assert (added["ModeName"], added["ListAction"]) == ("Night", 1)
    assert peer.error("RecallMode", ModeName="Night", NotificationLevel=0) == 0
    assert watcher.notification("RequestModeRecallNotifications")["ClientID"] == peer.client_id
    assert watcher.notification("GetCurrentModeWithNotification")["ModeName"] == "Night"
    assert peer.ask("GetCurrentMode")["ModeName"] == "Night"

    assert peer.error("DeleteUserMode", ModeName="Night") == 1
    for protect, refused in (("ProtectMode", 1), ("UnprotectMode", 0)):
        peer.ask(protect, ModeName="User1")
        assert peer.error("DeleteUserMode", ModeName="User1") == refused
    stored: Record = {"ModeName": "Up", "FormatVersion": 1, "ModeData": b"\x00\xff"}
    assert [peer.error("UploadUserModeData", **stored, Overwrite=0) for _ in range(2)] == [0, 1]
    assert peer.ask("GetModeData", ModeName="Up")["ModeData"] == b"\x00\xff"
    assert peer.ask("GetModeList", ModeType=2)["NumberOfModes"] == 2


def test_what_is_set_shows_in_lists(catalogue: catalogues.Catalogue) -> None:
    talk = Talk(catalogue)
    faults = rows(talk.ask("GetFaultsGeneral", NotificationLevel=0)[1]["listOfFaults"])
    talk.ask("SetFaultStatus", FaultID=faults[1]["FaultID"], FaultStatus=7)
    faults = rows(talk.ask("GetFaultsGeneral", NotificationLevel=0)[1]["listOfFaults"])
    assert [one["FaultStatus"] for one in faults] == [1, 7]
    talk.ask("ModifyConstraintColumn", Division="D1", ColumnName="Column2", State=7)
    columns = rows(talk.ask("GetShapeConstraints", Division="D1")[1]["listOfColumns"])
    assert [one["State"] for one in columns] == [1, 7]
    assert [rows(one["listOfConstraints"])[0]["State"] for one in columns] == [1, 1]


@pytest.mark.parametrize("names", ["MinimumValue MaximumValue", "Minimum Maximum", "LowestStep HighestStep"])
def test_a_made_up_value_lies_within_its_limits(names: str) -> None:
    low, high = names.split()
    fields = [ScalarField(key, key, "u16", "") for key in (low, "CurrentValue", high)]
    record = cast("dict[str, int]", Plausible(lambda: 0).complete(fields))
    assert record[low] < record["CurrentValue"] <= record[high]


def test_both_layouts_of_a_shared_id(catalogue: catalogues.Catalogue) -> None:
    for name in ("GetModeListWithNotification", "GetModeListWithNotificationGallix"):
        _, response = Talk(catalogue, name).ask(name)
        assert response["NumberOfModes"] == len(rows(response["listOfModes"])) > 0


def test_periodic_notifications_pass_over_who_does_not_read(catalogue: catalogues.Catalogue) -> None:
    talk = Talk(catalogue)
    talk.ask("GetFeedRate", NotificationLevel=1)
    assert talk.machine.report_all() == 1
    talk.client.lags = lambda: True
    assert talk.machine.report_all() == 0


def test_a_corrected_layout_corrects_what_is_remembered(tmp_path: Path) -> None:
    path = tmp_path / "catalogue.json"
    words = [sys.executable, "-m", "generator", "--overlay", "examples/overlay", "--json", str(path)]
    subprocess.run(words, cwd=ROOT, check=True)
    corrected = catalogues.load(path)
    assert corrected.standings()["site-confirmed"] > 0
    talk = Talk(corrected)
    talk.ask("SetEjectorRateLimit", DivisionNumber=2, EjectorRateLimit=90000)
    _, second = talk.ask("GetEjectorRateLimit", DivisionNumber=2)
    _, third = talk.ask("GetEjectorRateLimit", DivisionNumber=3)
    assert second["EjectorRateLimit"] == 90000 != third["EjectorRateLimit"]


def test_without_a_catalogue_it_says_how_to_get_one(tmp_path: object) -> None:
    with pytest.raises(catalogues.CatalogueError, match="cmake --preset release"):
        catalogues.load(f"{tmp_path}/none.json")


def test_layout_status_knows_every_message(catalogue: catalogues.Catalogue) -> None:
    status = catalogues.layout_status(catalogue)
    assert len(status) == sum(catalogue.standings().values())
    assert status["GetMachineInfoResponse"].standing == "confirmed"
    assert status["GetFeedRateNotification"].standing == "assumed"
