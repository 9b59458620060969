"""What a test sets from outside, and frames that pictures can be made of."""

from __future__ import annotations

from typing import cast

import pytest
from conftest import Bench
from vorlinkit.simulator import SimulatorFailed
from vorlinkit.simulator.network.given import assignments
from vorlinkit.simulator.options import parse
from vorlinkit.wire.records import Record

F1: Record = {"FeedConfigurerID": "F1", "NotificationLevel": 0}


def test_what_is_set_is_answered_and_told_until_a_client_sets_it(bench: Bench) -> None:
    simulator = bench.simulator("--notify-on-change-only")
    peer, watcher = bench.peer(simulator), bench.peer(simulator)
    watcher.ask("GetFeedRate", FeedConfigurerID="F1", NotificationLevel=1)
    other = peer.ask("GetFeedRate", FeedConfigurerID="F2", NotificationLevel=0)

    simulator.set("GetFeedRate", FeedConfigurerID="F1", FeedRate=100)
    assert watcher.notification("GetFeedRate")["FeedRate"] == 100
    simulator.set("get_feed_rate", feed_configurer_id="F1", actual_feed_rate=0)
    assert watcher.notification("GetFeedRate") == {
        "FeedConfigurerID": "F1",
        "FeedRate": 100,
        "ActualFeedRate": 0,
    }
    assert bench.peer(simulator).ask("GetFeedRate", **F1) == {
        "CommandError": 0,
        "FeedRate": 100,
        "ActualFeedRate": 0,
    }
    assert peer.ask("GetFeedRate", FeedConfigurerID="F2", NotificationLevel=0) == other

    peer.ask("SetFeedRate", FeedConfigurerID="F1", FeedRate=60)
    assert watcher.notification("GetFeedRate")["FeedRate"] == 60
    assert peer.ask("GetFeedRate", **F1) == {"CommandError": 0, "FeedRate": 60, "ActualFeedRate": 60}
    simulator.set("GetFeedRate", FeedRate=9)  # of all
    assert [
        peer.ask("GetFeedRate", **{**F1, "FeedConfigurerID": one})["FeedRate"] for one in ("F1", "F7")
    ] == [9, 9]


def test_what_the_machine_does_itself_replaces_what_was_set(bench: Bench) -> None:
    simulator = bench.simulator("--motor-interval", "1", "--clock", "50")
    peer = bench.peer(simulator)
    motor: Record = {"AutomatedDeviceID": "AD1", "AttachedMotorNumber": 1}
    simulator.set("GetMotorPosition", **motor, ActualMotorPosition=777)
    simulator.set("GetServerTime", Timestamp=7)
    assert peer.ask("GetMotorPosition", **motor, NotificationLevel=1)["ActualMotorPosition"] == 777
    assert peer.ask("GetServerTime") == {"Timestamp": 7}
    peer.ask("SetMotorPosition", **motor, MotorPosition=100)
    while (told := peer.notification("GetMotorPosition"))["SetMotorPosition"] != 100:
        pass
    assert told["ActualMotorPosition"] == 100
    peer.ask("SetServerTime", Timestamp=70)
    assert peer.ask("GetServerTime") == {"Timestamp": 70}


def test_an_object_can_be_set_to_refuse(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    motor: Record = {"AutomatedDeviceID": "AD1", "AttachedMotorNumber": 1, "MotorPosition": 500}
    simulator.set("SetMotorPosition", AutomatedDeviceID="AD1", CommandError=3)
    assert peer.error("SetMotorPosition", **motor) == 3
    assert (
        peer.ask("GetMotorPosition", AutomatedDeviceID="AD1", AttachedMotorNumber=1, NotificationLevel=0)[
            "SetMotorPosition"
        ]
        == 0
    )
    assert peer.error("SetMotorPosition", **{**motor, "AutomatedDeviceID": "AD2"}) == 0
    simulator.set("SetMotorPosition", AutomatedDeviceID="AD1", CommandError=0)
    assert peer.error("SetMotorPosition", **motor) == 0


def test_lists_variants_texts_and_blobs(bench: Bench) -> None:
    simulator = bench.simulator()
    peer = bench.peer(simulator)
    seven, nine = ("-".join(digit * many for many in (8, 4, 4, 4, 12)) for digit in "79")
    simulator.set("GetFaultsGeneral", listOfFaults=[{"FaultID": seven}, {"FaultID": nine, "FaultStatus": 4}])
    peer.ask("SetFaultStatus", FaultID=seven, FaultStatus=3)
    faults = cast("list[Record]", peer.ask("GetFaultsGeneral", NotificationLevel=0)["listOfFaults"])
    assert [(one["FaultID"], one["FaultStatus"]) for one in faults] == [(seven, 3), (nine, 4)]
    simulator.set("GetModeData", ModeName="User1", ModeData=b"\0\xff")
    assert peer.ask("GetModeData", ModeName="User1")["ModeData"] == b"\0\xff"
    peer.ask("GetServerStatus", NotificationLevel=1)
    simulator.control('set GetServerStatus DetailedStatus="a \\"b\\" \\u00e9" RestartStatus=0x2')
    assert peer.notification("GetServerStatus") == {"RestartStatus": 2, "DetailedStatus": 'a "b" \u00e9'}


@pytest.mark.parametrize(
    ("line", "complaint"),
    [
        ("set", "say what to set"),
        ("set GetFedRate FeedRate=1", "there is no command 'GetFedRate'; did you mean GetFeedRate?"),
        (
            "set GetFeedRate FeedConfigurerID=F1",
            "say what GetFeedRate shall answer with: CommandError, FeedRate",
        ),
        ("set GetFeedRate FeedRat=1", "GetFeedRate has no field 'FeedRat'; did you mean FeedRate?"),
        ("set GetFeedRate FeedRate=256", "FeedRate is a whole number from 0 to 255, not '256'"),
        ("set GetFeedRate FeedRate=much", "from 0 to 255, not 'much'"),
        ("set GetFeedRate FeedRate=1.5", "from 0 to 255, not '1.5'"),
        ("set GetFeedRate FeedRate", "'FeedRate' is no FIELD=VALUE"),
        ("set GetFeedRate NotificationLevel=1", "no field 'NotificationLevel'"),
        ("set GetFaultsGeneral NumberOfFaults=1", "NumberOfFaults follows from listOfFaults"),
        (
            "set GetFaultsGeneral listOfFaults=7",
            r"listOfFaults is a list of entries as JSON, \[{\"FaultID\": ",
        ),
        (
            'set GetFaultsGeneral listOfFaults=[{"FaultD": 1}]',
            "entry 1 of listOfFaults has no .* did you mean FaultID",
        ),
        ('set GetFaultsGeneral listOfFaults=[{"FaultID": 7}]', "FaultID is a uuid, 8-4-4-4-12 .* not 7"),
        ("set GetFaultsGeneral listOfFaults=[{", "the value of listOfFaults is no JSON"),
        ("set GetModeData ModeName=A ModeData=00", "ModeData is hex:DIGITS"),
        ("set NoOpCommand x=1", "NoOpCommand has no field 'x'"),
        ("set NoOpCommand", "NoOpCommand answers with nothing"),
        ("set GetModeListWithNotificationGallix CommandError=1", "start with --prefer GetModeList"),
    ],
)
def test_mistakes_are_named_and_end_nothing(bench: Bench, line: str, complaint: str) -> None:
    simulator = bench.simulator()
    with pytest.raises(SimulatorFailed, match=complaint):
        simulator.control(line)
    assert bench.peer(simulator).ask("GetMachineInfo")


def test_values_with_spaces_are_json() -> None:
    assert assignments('A="b c"  D=[1, 2] E=f=g') == {"A": "b c", "D": [1, 2], "E": "f=g"}


def rows(told: Record, depth: int = 1) -> list[list[int]]:
    """The pixels of a frame, which has as many as it announces."""
    frame, width, lines = cast(
        "tuple[bytes, int, int]", [told[key] for key in ("Frame", "NumPixels", "NumLines")]
    )
    assert len(frame) == told["FrameSize"] == width * lines * depth
    pixels = [int.from_bytes(frame[at : at + depth], "big") for at in range(0, len(frame), depth)]
    return [pixels[at : at + width] for at in range(0, len(pixels), width)]


def test_frames_are_pictures_of_the_size_that_they_announce(bench: Bench) -> None:
    simulator = bench.simulator("--frame-size", "40x20")
    peer = bench.peer(simulator)
    peer.ask("CaptureFrame", CapturableID="Camera1", listOfCaptureOptions=[])
    picture = rows(peer.notification("CaptureFrame"))
    assert (len(picture), len(picture[0])) == (20, 40)
    assert (
        set(picture[0])
        == set(picture[-1])
        == {255}
        == {line[0] for line in picture} | {line[-1] for line in picture}
    )
    assert picture[1][1:6] == [0] * 5 and picture[5][1:6] == [0] * 5 and picture[6][2] > 0
    assert picture[10][1:-1] == sorted(picture[10][1:-1]) and len(set(picture[10])) > 30

    simulator.set("CaptureFrameDorvex", BitsPerPixel=12)
    request: Record = {"CapturableID": "Camera1", "NumLinesRequired": 3, "listOfCaptureOptions": []}
    peer.ask("CaptureFrameDorvex", **request)
    picture = rows(told := peer.notification("CaptureFrameDorvex"), depth=2)
    assert (told["NumPixels"], told["NumLines"], max(map(max, picture))) == (40, 3, 4095)
    simulator.set("CaptureFrameEx", NumPixels=3, NumLines=2)
    sources: list[Record] = [{"CapturableID": "Camera1"}]
    peer.ask("CaptureFrameEx", listOfCapturables=sources, listOfCaptureOptions=[])
    assert rows(peer.notification("CaptureFrameEx")) == [[255] * 3] * 2

    info = peer.ask("GetCapturableInfo", CapturableID="Camera1")
    assert (info["NumPixels"], info["MaxLines"], info["BitsPerPixel"]) == (40, 20, 8)
    assert [one["ColourName"] for one in cast("list[Record]", info["listOfColours"])] == ["Grey"]


@pytest.mark.parametrize("size", ["0x5", "70000x5", "65535x65535", "5", "axb"])
def test_frame_sizes_have_bounds(size: str, capsys: pytest.CaptureFixture[str]) -> None:
    with pytest.raises(SystemExit):
        parse(["--frame-size", size])
    assert "is not a size such as 64x48" in capsys.readouterr().err
