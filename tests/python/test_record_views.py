"""Views of lists and variants: live, and never left dangling by what is written under them."""

import copy
import gc
import random
import resource

import pytest
import vorlinkit_python as vorlin
from catalogue_records import RECORDS, class_of

Capture = vorlin.CaptureFrameExRequest
Capturable = vorlin.CaptureFrameExRequestCapturablesItem
Option = vorlin.CaptureFrameExRequestCaptureOptionsItem
Presence = vorlin.CaptureFrameExRequestCaptureOptionsItemCapturePresenceOnly
Triggered = vorlin.CaptureFrameExRequestCaptureOptionsItemTriggeredCapture
Classification = vorlin.CaptureFrameExRequestCaptureOptionsItemTriggeredCaptureClassificationsItem


def test_list_elements_look_at_the_stored_items():
    capture = Capture()
    capture.list_of_capturables.append(Capturable())
    assert capture.list_of_capturables == []
    item = Capturable()
    capture.list_of_capturables = [item, item]
    item.capturable_id = "not stored"
    capture.list_of_capturables[0].capturable_id = "camera 1"
    assert [each.capturable_id for each in capture.list_of_capturables] == ["camera 1", ""]


def test_a_view_outlives_its_record_and_its_list():
    response = vorlin.decode_get_attached_motors_response(bytes.fromhex("0000414431000201030205"))
    motors = response.list_of_motors
    del response
    gc.collect()
    assert [(m.attached_motor_number, m.motor_type) for m in motors] == [(1, 3), (2, 5)]
    last = motors.pop()
    del motors
    assert last.motor_type == 5


def test_written_lists_leave_their_former_items_to_their_views():
    capture = Capture()
    capture.list_of_capturables = [Capturable() for _ in range(3)]
    for number, each in enumerate(capture.list_of_capturables):
        each.capturable_id = f"camera {number} with a name that takes memory of its own"
    old = capture.list_of_capturables
    capture.list_of_capturables = old[1:]
    capture.list_of_capturables = []
    gc.collect()
    old[0].capturable_id += "!"
    assert [each.capturable_id[:8] for each in old] == ["camera 0", "camera 1", "camera 2"]
    assert old[0].capturable_id.endswith("own!")


@pytest.mark.parametrize("same", [Presence, Triggered])
def test_written_variants_leave_their_former_alternative_to_its_views(same):
    option = Option()
    option.capture_option = Triggered()
    former, again = option.capture_option, option.capture_option
    former.list_of_classifications = [Classification(), Classification()]
    items = again.list_of_classifications
    option.capture_option = same()
    gc.collect()
    former.option_id = 200
    assert again.option_id == 200 and option.capture_option.option_id == 0
    assert len(again.list_of_classifications) == 2
    again.list_of_classifications = []
    assert former.list_of_classifications == [] and len(items) == 2


def test_self_assignment():
    capture = Capture()
    capture.list_of_capture_options = [Option(), Option()]
    option = capture.list_of_capture_options[1]
    option.capture_option = Triggered()
    option.capture_option.option_id = 7
    option.capture_option = option.capture_option
    capture.list_of_capture_options = capture.list_of_capture_options
    assert capture.list_of_capture_options[1].capture_option.option_id == 7


def test_bytes_of_a_blob_and_its_items_are_the_same():
    notification = vorlin.CaptureFrameExNotification()
    for buffer in (b"abc", bytearray(b"abc"), memoryview(b"abc")):
        notification.frame_bytes = buffer
        assert [each.frame_data_byte for each in notification.frame] == [97, 98, 99]
    items = notification.frame
    items[1].frame_data_byte = 0
    assert notification.frame_bytes == b"a\0c"
    notification.frame = items[:2]
    notification.frame_bytes = bytes(5)
    assert notification.frame_size == 0 and len(notification.frame) == 5
    assert bytes(each.frame_data_byte for each in items) == b"a\0c"
    for refused in ("abc", None, 5, [97], memoryview(bytes(8))[::2]):
        with pytest.raises(TypeError):
            notification.frame_bytes = refused
    assert notification.frame_bytes == bytes(5)


# -- any sequence of reads and writes, against the same done with plain Python objects ------------------


class Model:
    """What a record is to Python: assignment copies, reading gives what is stored."""

    def __init__(self, name):
        self.name = name
        self.values = {}
        for field in RECORDS[name]:
            kind = field["kind"]
            if kind == "variant":
                self.values[field["attribute"]] = Model(field["alternatives"][0]["type"])
            else:
                self.values[field["attribute"]] = (
                    [] if kind == "list" else "" if kind in ("string", "uuid") else 0
                )


def random_record(random_, name, depth=0):
    """The same random record twice: one of ours and its model."""
    record, model = class_of(name)(), Model(name)
    for field in RECORDS[name]:
        write(random_, record, model, field, depth)
    return record, model


def write(random_, record, model, field, depth, pool=()):
    attribute, kind = field["attribute"], field["kind"]
    if kind == "list":
        size = random_.choice((0, 1, 3)) if depth < 3 else 0
        known = [pair for pair in pool if pair[1].name == field["type"]]
        pairs = [
            random_.choice(known)
            if known and random_.random() < 0.6
            else random_record(random_, field["type"], depth + 1)
            for _ in range(size)
        ]
        setattr(record, attribute, [each for each, _ in pairs])
        model.values[attribute] = [copy.deepcopy(each) for _, each in pairs]
    elif kind == "variant":
        known = [pair for pair in pool if any(pair[1].name == a["type"] for a in field["alternatives"])]
        if known and random_.random() < 0.6:
            alternative = random_.choice(known)
        else:
            alternative = random_record(random_, random_.choice(field["alternatives"])["type"], depth + 1)
        setattr(record, attribute, alternative[0])
        model.values[attribute] = copy.deepcopy(alternative[1])
    elif kind in ("string", "uuid"):
        model.values[attribute] = random_.choice(("", "x", "a text that is too long to be stored in place"))
        setattr(record, attribute, model.values[attribute])
    else:
        model.values[attribute] = random_.randrange(256)
        setattr(record, attribute, model.values[attribute])


def read(record, model, field):
    """The views that an attribute gives, with their models."""
    seen, expected = getattr(record, field["attribute"]), model.values[field["attribute"]]
    if field["kind"] == "list":
        assert len(seen) == len(expected)
        return list(zip(seen, expected, strict=True))
    if field["kind"] == "variant":
        return [(seen, expected)]
    assert seen == expected
    return []


def check(record, model):
    assert type(record).__name__ == model.name
    for field in RECORDS[model.name]:
        for below in read(record, model, field):
            check(*below)


@pytest.mark.parametrize("seed", range(40))
@pytest.mark.parametrize("name", [
    "CaptureFrameExRequest", "GetArchiveStatisticsResponseDataPointsItem", "GetSoftwareVersionsResponse",
    "GetStatisticsResponse",
])  # fmt: skip
def test_random_reads_and_writes(name, seed):
    random_ = random.Random(seed)
    pool = [random_record(random_, name) for _ in range(2)]
    for _ in range(120):
        record, model = random_.choice(pool)
        field = random_.choice(RECORDS[model.name])
        if random_.random() < 0.5:
            write(random_, record, model, field, 0, pool)
        else:
            pool += read(record, model, field)
        while len(pool) > 25:
            pool.pop(random_.randrange(len(pool)))
        del record, model
    for pair in pool:
        check(*pair)


def test_former_contents_go_with_their_last_view():
    """A long-lived view keeps what it looks at, not everything that was ever written."""

    def one_item(text):
        item = Capturable()
        item.capturable_id = text
        return [item]

    capture = Capture()
    capture.list_of_capturables = one_item("kept")
    kept = capture.list_of_capturables[0]
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    for _ in range(300):
        glance = capture.list_of_capturables[0]
        capture.list_of_capturables = one_item("x" * (1 << 20))
        assert glance.capturable_id
    assert kept.capturable_id == "kept"
    assert resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before < 50 * 1024
