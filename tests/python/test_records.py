"""The record classes of all commands: what they hold, what they take, what they refuse."""

import decimal
import fractions
import weakref
from collections import UserList

import pytest
import vorlinkit_python as vorlin
from catalogue_records import BITS, COMMANDS, RECORDS, attribute_of, attributes, class_of, records_below


class Index:
    def __init__(self, value):
        self.value = value

    def __index__(self):
        return self.value


class Failing:
    def __index__(self):
        raise ValueError("no number")


REFUSED_BY = {
    "string": (5, None, 1.0, [], "\ud800"),
    "uuid": (5, None),
    "list": (None, 5, "text", b"bytes", {}, set(), [None], [1], iter([]), (n for n in ())),
    "blob": (None, 5, "text", b"bytes", [1]),
    "variant": (None, 5, [], vorlin.FlushLogResponse()),
} | {kind: (None, "5", b"5", 1.0, -1, 1 << bits, [], Failing()) for kind, bits in BITS.items()}


def taken_by(field):
    """Values of a kind, and what they read back as; objects as their classes."""
    kind = field["kind"]
    if kind in BITS:
        largest = (1 << BITS[kind]) - 1
        return [(largest, largest), (True, 1), (Index(7), 7), (decimal.Decimal(3), 3), (0, 0)]
    if kind in ("string", "uuid"):
        texts = ["text", "ü\0\udcff", ""]
        return [(b"raw\xff", "raw\udcff"), (bytearray(b"x"), "x"), *zip(texts, texts, strict=True)]
    if kind == "list":
        item = class_of(field["type"])
        two, own = [item(), item()], type("Own", (item,), {})
        return [(value, [item, item]) for value in (two, tuple(two), UserList(two), [own(), own()])]
    if kind == "variant":
        classes = [class_of(alternative["type"]) for alternative in reversed(field["alternatives"])]
        return [(class_(), class_) for class_ in classes]
    return []


def shape(value):
    """A value as it can be compared: objects as their classes."""
    if isinstance(value, list):
        return [type(each) for each in value]
    return value if isinstance(value, int | str) else type(value)


@pytest.mark.parametrize("name", RECORDS)
def test_every_record(name):
    record_class, fields = class_of(name), RECORDS[name]
    shown = [attribute for attribute in vars(record_class) if not attribute.startswith("__")]
    assert shown == list(attributes(fields))
    assert record_class.__init__.__doc__ == f"__init__(self: vorlinkit_python.{name}) -> None\n"
    record = record_class()
    for field in fields:
        attribute, kind = field["attribute"], field["kind"]
        doc = getattr(record_class, attribute).__doc__
        assert doc.startswith(f"(self: vorlinkit_python.{name}) -> ") and field["note"] in doc
        initial = getattr(record, attribute)
        if kind == "variant":
            assert type(initial) is class_of(field["alternatives"][0]["type"])
        else:
            assert initial == (0 if kind in BITS else [] if kind in ("list", "blob") else "")
        refused = list(REFUSED_BY[kind])
        for value, stored in taken_by(field):
            setattr(record, attribute, value)
            assert shape(getattr(record, attribute)) == stored
            if kind == "list":
                refused.append([*value, None])
        last = shape(getattr(record, attribute))
        for value in refused:
            with pytest.raises(TypeError, match=r"^\(\): incompatible function arguments\. The following"):
                setattr(record, attribute, value)
            assert shape(getattr(record, attribute)) == last
        with pytest.raises(AttributeError, match=f"property '{attribute}' of '{name}' object has no deleter"):
            delattr(record, attribute)


def outcome(assign):
    try:
        return assign()
    except Exception as error:
        return type(error)


@pytest.mark.parametrize("value", [
    0, 1, -1, 65535, 65536, 2**64, -(2**70), True, False, 1.0, float("nan"), "5", b"5", None, [], 1j,
    Index(5), Index(70000), Failing(), decimal.Decimal("3.7"), decimal.Decimal("Infinity"), fractions.Fraction(9, 2),
])  # fmt: skip
def test_numbers_convert_as_in_classes_of_the_binding_library(value):
    bound, record = vorlin.SessionConfig(), vorlin.FlushLogResponse()
    expected = outcome(lambda: setattr(bound, "port", value) or bound.port)
    assert outcome(lambda: setattr(record, "command_error", value) or record.command_error) == expected


def test_type_errors_name_the_attribute_type_and_the_value():
    record = vorlin.GetMachineInfoResponse()
    with pytest.raises(TypeError) as caught:
        record.interface_type = 256
    assert str(caught.value) == (
        "(): incompatible function arguments. The following argument types are supported:\n"
        "    1. (self: vorlinkit_python.GetMachineInfoResponse, arg0: int) -> None\n\n"
        f"Invoked with: {record!r}, 256"
    )
    with pytest.raises(TypeError) as caught:
        vorlin.FlushLogRequest("Events", log_name="Events")
    assert str(caught.value) == (
        "__init__(): incompatible constructor arguments. The following argument types are supported:\n"
        "    1. vorlinkit_python.FlushLogRequest()\n\nInvoked with: 'Events'; kwargs: log_name='Events'"
    )


def test_a_sequence_may_fail_or_write_the_list_it_is_assigned_to():
    record, item = vorlin.GetAttachedMotorsResponse(), vorlin.GetAttachedMotorsResponseMotorsItem

    class Torn(list):
        def __getitem__(self, index):
            raise LookupError("torn")

    class Meddling(list):
        def __getitem__(self, index):
            record.list_of_motors = [item()] * 50
            return super().__getitem__(index)

    record.list_of_motors = [item()]
    with pytest.raises(LookupError, match="torn"):
        record.list_of_motors = Torn([item()] * 3)
    assert len(record.list_of_motors) == 1
    motor = item()
    motor.motor_type = 9
    record.list_of_motors = Meddling([motor, motor])
    assert [each.motor_type for each in record.list_of_motors] == [9, 9]


def test_subclasses_are_ordinary_classes():
    class Named(vorlin.FlushLogRequest):
        def __init__(self, name, *, twice=False):  # without that of the record, which is whole before it
            self.log_name += name * 2 if twice else name
            self.myself = self

        def __getattr__(self, name):
            return "absent " + name

    named = Named("ab", twice=True)
    named.own = 1
    assert (named.log_name, named.own, named.other) == ("abab", 1, "absent other")
    assert vorlin.encode_flush_log_request(named) == b"abab\0"
    with pytest.raises(TypeError):
        named.log_name = 5
    gone = weakref.ref(named)
    del named.myself, named
    assert gone() is None


def test_what_would_confuse_records_is_refused():
    request, response = vorlin.FlushLogRequest, vorlin.FlushLogResponse
    for act in (
        lambda: type("Both", (request, response), {})(),
        lambda: type("Both", (vorlin.SessionConfig, request), {})(),
        lambda: setattr(request(), "__class__", response),
        lambda: object.__new__(request),
        lambda: request.log_name.__get__(response()),
        lambda: setattr(type("Own", (request,), {}), "__bases__", (response,)),
    ):
        with pytest.raises(TypeError):
            act()


def test_changed_classes_show_their_change(monkeypatch):
    record = vorlin.SelectLogFlushBehaviourRequest()
    assert record.flush_behaviour == 0
    with monkeypatch.context() as changed:
        changed.setattr(type(record), "flush_behaviour", property(lambda self: "changed"))
        assert record.flush_behaviour == "changed"
    assert record.flush_behaviour == 0


def test_blocks_are_registered_in_order():
    names = {name: place for place, name in enumerate(vars(vorlin))}
    for command in COMMANDS:
        snake = command["snake"]
        expected = [snake.upper() + "_COMMAND_ID"]
        assert getattr(vorlin, expected[0]) == command["id"]
        for role, message in command["messages"].items():
            expected += [name for name, _ in records_below(message["type"], message["fields"])]
            expected += [f"encode_{snake}_{role}" if role == "request" else f"decode_{snake}_{role}"]
            expected += [f"{snake}_{role}_to_json"]
        coded = (["CommandError"] if command["errors"] is not None else []) + list(command["coded"])
        for attribute in map(attribute_of, coded):
            expected += [f"{snake}_{attribute}_string", f"{snake}_{attribute}_codes"]
        places = [names[name] for name in expected]
        assert places == list(range(places[0], places[0] + len(expected)))
