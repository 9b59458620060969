"""Records as values: made from keywords, compared, described, copied, pickled."""

import copy
import gc
import pickle
import random

import pytest
import vorlinkit_python as vorlin
from catalogue_records import BITS, RECORDS, class_of

TEXTS = ("", "AD1", 'it\'s "quoted"\n', "ü\0\udcff")


def values_of(random_, name, depth=0):
    """Attribute -> value of a record of this type, at random; a blob as its bytes."""
    return {
        attribute: value for field in RECORDS[name] for attribute, value in [value_of(random_, field, depth)]
    }


def value_of(random_, field, depth):
    attribute, kind = field["attribute"], field["kind"]
    if kind in BITS:
        return attribute, random_.choice((0, 1, (1 << BITS[kind]) - 1))
    if kind == "blob":
        return attribute + "_bytes", random_.randbytes(random_.randrange(20))
    if kind == "list":
        size = random_.randrange(4) if depth < 2 else 0
        return attribute, [made(random_, field["type"], depth + 1) for _ in range(size)]
    if kind == "variant":
        return attribute, made(random_, random_.choice(field["alternatives"])["type"], depth + 1)
    return attribute, random_.choice(TEXTS)


def made(random_, name, depth=0):
    return class_of(name)(**values_of(random_, name, depth))


def changed(record, field):
    """A copy that differs in this field alone."""
    other, attribute, kind = copy.copy(record), field["attribute"], field["kind"]
    held = getattr(other, attribute)
    if kind in BITS:
        setattr(other, attribute, held ^ 1)
    elif kind == "variant":
        kinds = [class_of(each["type"]) for each in field["alternatives"]]
        setattr(other, attribute, next(kind() for kind in kinds if kind is not type(held)))
    elif kind in ("list", "blob"):
        setattr(other, attribute, [*held, class_of(field["type"])()])
    else:
        setattr(other, attribute, held + "x")
    return other


@pytest.mark.parametrize("name", RECORDS)
def test_every_record_is_a_value(name):
    random_, record_class = random.Random(name), class_of(name)
    values = values_of(random_, name)
    record, assigned = record_class(**values), record_class()
    for attribute, value in values.items():
        setattr(assigned, attribute, value)
        assert getattr(assigned, attribute) == getattr(record, attribute) == value
    assert record == assigned and not record != assigned
    assert eval(repr(record), vars(vorlin)) == record
    copies = [copy.copy(record), copy.deepcopy(record)]
    copies += [
        pickle.loads(pickle.dumps(record, protocol)) for protocol in range(pickle.HIGHEST_PROTOCOL + 1)
    ]
    for each in copies:
        assert each == record and type(each) is record_class and each is not record
    for field in RECORDS[name]:
        other = changed(record, field)
        assert other != record and not other == record and copies[0] == record
    with pytest.raises(TypeError, match="unhashable"):
        hash(record)


Motors, Motor = vorlin.GetAttachedMotorsResponse, vorlin.GetAttachedMotorsResponseMotorsItem
Point, Lamps = (
    vorlin.GetArchiveStatisticsResponseDataPointsItem,
    vorlin.GetArchiveStatisticsResponseDataPointsItemLampUse,
)


def test_what_is_compared_is_of_one_class():
    own = type("Own", (Motor,), {})
    for other in (own(), vorlin.FlushLogResponse(), 0, None):
        assert Motor() != other and not Motor() == other
    assert own(motor_type=1) == own(motor_type=1) != own()
    with pytest.raises(TypeError):
        Motor() < Motor()  # noqa: B015


def test_long_content_is_cut_short():
    assert (
        repr(vorlin.FlushLogRequest(log_name="x" * 100))
        == f"FlushLogRequest(log_name='{'x' * 80}' ... 20 more)"
    )
    frame = vorlin.CaptureFrameExNotification(frame_bytes=bytes(1 << 20))
    assert len(repr(frame)) < 400 and repr(frame).endswith("\\x00' ... 1048544 more)")
    text = repr(Motors(list_of_motors=[Motor(motor_type=each) for each in range(200)]))
    assert text.count("MotorsItem(") == 3 and text.endswith("motor_type=2) ... 197 more])")
    assert len(pickle.dumps(frame)) < 1.1 * (1 << 20)


@pytest.mark.parametrize(
    "duplicate", [copy.copy, copy.deepcopy, lambda each: pickle.loads(pickle.dumps(each))]
)
def test_a_copy_of_a_view_is_a_record_of_its_own(duplicate):
    point = Point(archived_data_point=Lamps(list_of_lamps=[lamp(3)]))
    views = [point, point.archived_data_point, point.archived_data_point.list_of_lamps[0]]
    copies = [duplicate(each) for each in views]
    views[2].use_time = 9
    point.archived_data_point = Lamps()
    del point, views
    gc.collect()
    assert copies == [
        Point(archived_data_point=Lamps(list_of_lamps=[lamp(3)])),
        Lamps(list_of_lamps=[lamp(3)]),
        lamp(3),
    ]
    copies[1].list_of_lamps[0].use_time = 4
    assert copies[0].archived_data_point.list_of_lamps == [lamp(3)]


def lamp(use_time):
    return vorlin.GetArchiveStatisticsResponseDataPointsItemLampUseLampsItem(use_time=use_time)


class Named(vorlin.FlushLogRequest):
    __slots__ = ("__dict__", "label")

    def __init__(self, name):
        super().__init__(log_name=name)
        self.label, self.myself = [name], self


@pytest.mark.parametrize(
    "duplicate", [copy.copy, copy.deepcopy, lambda each: pickle.loads(pickle.dumps(each))]
)
def test_subclasses_keep_what_they_add(duplicate):
    named = Named("Events")
    other = duplicate(named)
    assert type(other) is Named and other == named and repr(other) == "Named(log_name='Events')"
    assert other.label == ["Events"]
    assert (other.label is named.label, other.myself is named) == (
        (True, True) if duplicate is copy.copy else (False,) * 2
    )
    assert other.myself is (named if duplicate is copy.copy else other)


@pytest.mark.parametrize(("record_class", "keywords", "message"), [
    (vorlin.FlushLogRequest, {"logname": ""}, "FlushLogRequest() got an unexpected keyword argument 'logname'; "
     "did you mean log_name?"),
    (Motors, {"x": 1}, "GetAttachedMotorsResponse() got an unexpected keyword argument 'x'; it takes command_error, "
     "automated_device_id, number_of_motors, list_of_motors"),
    (vorlin.FlushLogRequest, {"log_name": 5}, "FlushLogRequest(): log_name takes str, not 5"),
    (Motor, {"motor_type": 256}, "GetAttachedMotorsResponseMotorsItem(): motor_type takes int of 0 to 255, not 256"),
    (Motors, {"list_of_motors": [1]}, "GetAttachedMotorsResponse(): list_of_motors takes "
     "List[vorlinkit_python.GetAttachedMotorsResponseMotorsItem], not [1]"),
])  # fmt: skip
def test_refused_keywords_are_named(record_class, keywords, message):
    with pytest.raises(TypeError) as caught:
        record_class(**keywords)
    assert str(caught.value) == message


def test_foreign_objects_are_refused():
    for method in ("__eq__", "__repr__", "__reduce__", "__copy__", "__deepcopy__"):
        for arguments in [(), (1,), (1, 2), (Motor(), 1, 2)]:
            with pytest.raises(TypeError):
                vars(Motor)[method].__func__(*arguments)
    rebuild = Motor().__reduce__()[0]
    for arguments in [
        (),
        (Motor,),
        (int, {}),
        (Motor(), {}),
        (Motor, {"x": 1}),
        (Motor, {1: 1}),
        (Motor, []),
    ]:
        with pytest.raises(TypeError):
            rebuild(*arguments)


def test_a_keyword_may_change_the_record_it_is_given_to():
    class Meddling:
        def __init__(self, values):
            self.values = values

        def __index__(self):
            self.values.clear()
            return 7

    values = {"command_error": 0, "number_of_motors": 0, "automated_device_id": "AD1"}
    values["command_error"] = Meddling(values)
    rebuilt = Motors().__reduce__()[0](Motors, values)
    assert rebuilt.command_error == 7
