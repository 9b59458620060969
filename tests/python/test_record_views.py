"""Views of lists and variants: live, and never left dangling by what is written under them."""

import copy
import random
import resource

import pytest
import vorlinkit_python as vorlin
from catalogue_records import RECORDS, class_of
from fake_server import run_script

Capture = vorlin.CaptureFrameExRequest
Capturable = vorlin.CaptureFrameExRequestCapturablesItem


def test_list_elements_look_at_the_stored_items():
    capture, item = Capture(), Capturable()
    capture.list_of_capturables.append(item)
    assert capture.list_of_capturables == []
    capture.list_of_capturables = [item, item]
    item.capturable_id = "not stored"
    capture.list_of_capturables[0].capturable_id = "camera 1"
    assert [each.capturable_id for each in capture.list_of_capturables] == ["camera 1", ""]


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
            if field["kind"] == "variant":
                initial = Model(field["alternatives"][0]["type"])
            else:
                initial = {"list": [], "string": "", "uuid": ""}.get(field["kind"], 0)
            self.values[field["attribute"]] = initial


def random_record(random_, name, depth=0):
    """The same random record twice: one of ours and its model."""
    pair = class_of(name)(), Model(name)
    for field in RECORDS[name]:
        write(random_, *pair, field, depth)
    return pair


def pick(random_, names, depth, pool):
    """A record of one of these types, from the pool or new, and what its model is copied to."""
    known = [pair for pair in pool if pair[1].name in names]
    if not known or random_.random() > 0.6:
        known = [random_record(random_, random_.choice(names), depth + 1)]
    record, model = random_.choice(known)
    return record, copy.deepcopy(model)


def write(random_, record, model, field, depth, pool=()):
    if field["kind"] == "list":
        size = random_.choice((0, 1, 3)) if depth < 3 else 0
        pairs = [pick(random_, [field["type"]], depth, pool) for _ in range(size)]
        value, expected = [each for each, _ in pairs], [each for _, each in pairs]
    elif field["kind"] == "variant":
        value, expected = pick(random_, [each["type"] for each in field["alternatives"]], depth, pool)
    elif field["kind"] in ("string", "uuid"):
        value = expected = random_.choice(("", "x", "a text that is too long to be stored in place"))
    else:
        value = expected = random_.randrange(256)
    setattr(record, field["attribute"], value)
    model.values[field["attribute"]] = expected


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

    capture, item = Capture(), Capturable()
    item.capturable_id = "kept"
    capture.list_of_capturables = [item]
    kept = capture.list_of_capturables[0]
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    for _ in range(300):
        glance = capture.list_of_capturables[0]
        item.capturable_id = "x" * (1 << 20)
        capture.list_of_capturables = [item]
        assert glance.capturable_id
    assert kept.capturable_id == "kept"
    assert resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before < 50 * 1024


# Python code that runs in the middle of an access moves what is accessed, or takes it away: an error handler
# while a text is converted, a finaliser when a new list starts a garbage collection.
MEDDLING_SCRIPT = """
class Garbage:
    def __init__(self, finalise):
        self.myself, self.finalise = self, finalise
    def __del__(self):
        self.finalise()

def with_finaliser(finalise, act):
    gc.disable()
    Garbage(finalise)
    kept = [[] for _ in range(1000)]  # what lists the interpreter has in reserve
    gc.set_threshold(1)
    gc.enable()
    return act()

Item = vorlin.GetArchiveStatisticsResponseDataPointsItem
point, use = Item(), vorlin.GetArchiveStatisticsResponseDataPointsItemLampUse()
use.list_of_lamps = [vorlin.GetArchiveStatisticsResponseDataPointsItemLampUseLampsItem()] * 3

def overwrite():
    point.archived_data_point = vorlin.GetArchiveStatisticsResponseDataPointsItemWhiteness()

def handle(error):
    overwrite()
    return "?", error.end

def view_of(alternative):
    point.archived_data_point = alternative
    return point.archived_data_point

def write_text():
    view = view_of(vorlin.GetArchiveStatisticsResponseDataPointsItemEngineersShapeStats())
    earlier = codecs.lookup_error("surrogateescape")
    codecs.register_error("surrogateescape", handle)
    view.csv_data = "\\ud800" + "x" * 100
    codecs.register_error("surrogateescape", earlier)
    return view.csv_data == "?" + "x" * 100

def write_text_while_collecting():
    view = view_of(vorlin.GetArchiveStatisticsResponseDataPointsItemEngineersShapeStats())
    with_finaliser(overwrite, lambda: setattr(view, "csv_data", "\\udcff" * 100))
    return view.csv_data == "\\udcff" * 100

def read_list_that_moves():
    view = view_of(use)
    read = with_finaliser(overwrite, lambda: view.list_of_lamps)
    return [each.use_time for each in read] == [0] * 3

def read_list_that_is_emptied():
    read = with_finaliser(lambda: setattr(use, "list_of_lamps", []), lambda: use.list_of_lamps)
    return [each.use_time for each in read] == []

assert vars()[sys.argv[1]]()
record = point.archived_data_point
assert type(record).__name__.endswith("Whiteness") or sys.argv[1].endswith("emptied")
"""


@pytest.mark.parametrize("access", [
    "write_text", "write_text_while_collecting", "read_list_that_moves", "read_list_that_is_emptied",
])  # fmt: skip
def test_python_code_in_the_middle_of_an_access(access):
    assert run_script(MEDDLING_SCRIPT, access) == (0, "", "")
