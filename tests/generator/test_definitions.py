"""Wrong definitions, each with what the generator says about it; and what right ones come to."""

from __future__ import annotations

import re
from pathlib import Path

import pytest
from hypothesis import given
from hypothesis import strategies as st

from generator import emit_cpp, emit_json, emit_methods, names
from generator.__main__ import main, read_catalogue, write
from generator.load import Document
from generator.model import Catalogue, Finding, Index
from generator.notation import read_families
from generator.validate import validate

HEAD = 'title = "Test"\n'
INDEX = 'commands = ["1 Foo request response notification", "80 A - response -", "80 B - response -"]\n'


def folder_with(path: Path, index: str = INDEX, **families: str) -> Path:
    path.mkdir(parents=True, exist_ok=True)
    if index:
        (path / "index.toml").write_text(index)
    for name, text in families.items():
        (path / f"{name}.toml").write_text(text)
    return path


def findings_of(path: Path, overlays: list[Path] | None = None, partial: bool = True) -> list[str]:
    _, findings = read_catalogue(path, overlays, partial=partial)
    return [str(finding).replace(str(path) + "/", "") for finding in findings]


def accepted(path: Path, *overlays: Path) -> Catalogue:
    catalogue, findings = read_catalogue(path, list(overlays), partial=True)
    assert not findings
    return catalogue


GOOD = """
[Foo]
id = 1
request = ["Name: string"]
response = ["CommandError: u16"]
notification = ["State: u8"]
unasked = "now and then"
"""

ONE = '[{ name = "A", when = [1], fields = ["X: u8"] }]'


def cases(table: str) -> list[tuple[str, list[str]]]:
    """The texts of a table, each with the findings on it; three blanks go on with a finding."""
    table = table.replace("ONE", ONE).replace("\n   ", " ")
    found = re.findall(r"((?:^(?!=> ).*\n)+)((?:^=> .*\n)+)", table, re.MULTILINE)
    return [(text.strip(), told[3:-1].split("\n=> ")) for text, told in found]


def family(text: str) -> str:
    """The file for a text about Foo (its head stands before [Foo]); what is left out is as in GOOD."""
    head, foo, rest = f"\n{text}\n".rpartition("\n[Foo]")
    given = re.findall(r"^\w+", rest.partition("\n[")[0], re.MULTILINE)
    lines = [line for line in GOOD.splitlines()[2:] if line.split()[0] not in given]
    return "\n".join([head if foo else HEAD, "[Foo]", *lines, rest])


WRONG = r"""
request = ["A: u7", "A u8", "b: u8", "A: u16", 5, "ID: uuid", "CommandError: u16"]
response = ["CommandError: u8"]
=> Foo: request: "A u8" is no field; write "Key: kind" or "Key: kind  # note"
=> Foo: request: 5 is no field; a field is "Key: kind" or a list, blob, variant or layout table
=> Foo: request: A: the key "A" stands in this record twice
=> Foo: request: A: unknown kind "u7"; kinds are u8, u16, u32, u64, string, uuid
=> Foo: request: b: "b" is no key; keys are in upper camel case
=> Foo: request: ID: a request carries no uuid; identifiers sent to the machine are strings
=> Foo: request: CommandError: a request carries no command error
=> Foo: response: CommandError: a command error is a u16, not a u8
request = ["NumberOfIDs: u8", "NumberOfI_Ds: u8", "AB1: u8", "Ab1: u8"]
=> Foo: request: NumberOfI_Ds: has the attribute "number_of_i_ds", as NumberOfIDs has
=> Foo: request: Ab1: has the attribute "ab1", as AB1 has
=> Foo: request: NumberOfI_Ds: "NumberOfI_Ds" is no key; keys are in upper camel case
request = ["A: u8  # C:\\"]
why = "one\ntwo"
=> Foo: why is one line of printable characters that does not end in a backslash
=> Foo: request: a note is one line of printable characters that does not end in a backslash
request = []
notification = "A: u8"
=> Foo: notification: fields must be an array in wire order, not str
=> Foo: request: has no field; a message without a payload is not listed at all
=> Foo: notification: has no field; a message without a payload is not listed at all
request = [{ list = "X", count = "N", items = ["A: u8"] }, "N: u8", { blob = "Frame", count = "Size", item = "Byte" }]
response = ["N: string", { list = "X", count = "N", items = ["A: u8"] }, "CommandError: u16"]
notification = ["N: u8", { list = "X", count = "N", items = [
  "M: u8", { list = "Y", count = "N", items = ["A: u8"] }] }, { list = "Z", count = "N", item = ["A: u8"] }]
=> Foo: notification: listOfZ: unknown key "item"; known are list, count, items, note
=> Foo: request: listOfX: its count "N" is not an earlier field of the same record
=> Foo: request: Frame: its count "Size" is not an earlier field of the same record
=> Foo: response: listOfX: its count "N" is a string; a count is an integer
=> Foo: notification: listOfX.listOfY: its count "N" is not an earlier field of the same record
=> Foo: notification: listOfZ: its items have no field
request = ["Size: u8", { blob = "Frame", count = "Size" }]
=> Foo: request: Frame: the key of a blob's byte is missing
=> Foo: request: Frame.: "" is no key; keys are in upper camel case
request = [{ variant = "v", on = "ID", alternatives = ONE }]
response = ["ID: string", { variant = "v", on = "ID", alternatives = ONE }]
notification = ["ID: u8", { variant = "v", on = "ID", alternatives = [
  { name = "A", when = [256], fields = ["X: u8"] }, { name = "B", when = [], fields = ["X: u8"] },
  { name = "C", when = [1], fields = [] }, { name = "D", when = [2, 1], fields = ["Y: u8"] }] }]
=> Foo: request: v: its discriminator "ID" is not an earlier field of this or an enclosing record
=> Foo: response: v: its discriminator "ID" is a string, not an integer
=> Foo: notification: v: alternative B: when is empty, so nothing selects it
=> Foo: notification: v: alternative C: has no field
=> Foo: notification: v: alternative D: 1 already selects C
=> Foo: notification: v: 256 does not fit "ID", which is a u8
request = ["ID: u8", { variant = "v", on = "ID", alternatives = [] }]
notification = ["ID: u8", { variant = "Data", on = "ID", alternatives = ONE }]
response = ["ID: u8", "X: u8", { variant = "v", on = "ID", alternatives = ONE }]
=> Foo: request: v: has no alternatives
=> Foo: response: v: the key "X" stands in this record twice
=> Foo: notification: Data: "Data" is no attribute; attributes are in lower snake case
request = [{ variant = "v", on = "ID", alternatives = [
  { name = "A", when = [1], fields = ["ID: u8"] },
  { name = "B", when = [2], fields = ["Y: u8", "ID: u8"] }] }]
notification = [{ variant = "v", on = "ID", alternatives = [
  { name = "A", when = [1], fields = ["ID: u8"] }, { name = "B", when = [2], fields = ["ID: u16"] }] }]
=> Foo: request: v: alternative B: does not begin with "ID" as the others do
=> Foo: notification: v: its discriminator "ID" has different kinds: u16, u8

idd = 1
=> Foo: unknown key "idd"; known are id, request, response, notification, errors, coded, confirmed,
   assumed, why, confirmed_by, about, effect, harmless, subscribes, address, unasked, progress
errors = ["0x10000 Text", "0 Text", "1 A", "1 B", "2 Text; ", "3 Text ", "one Text"]
=> Foo: errors: 'one Text' is no row; write "0x0001 Text" or "1 Text"
=> Foo: errors: row 0x10000 "Text": the code does not fit 16 bits
=> Foo: errors: row 0x0000 "Text": 0 is success and has no row
=> Foo: errors: row 0x0001 "B": the code has a row already
=> Foo: errors: row 0x0002 "Text; ": the text ends in ";"; the separator is added when it is rendered
=> Foo: errors: row 0x0003 "Text ": the text is empty or has blanks at its ends
errors = ["1 T", "2 T", "3 T", "4 T", "5 T", "6 T", "7 T", "8 T", "9 T", "10 T", "11 T", "12 T",
  "13 T", "14 T", "15 T", "16 T", "17 T", "18 T", "19 T", "20 T", "21 T", "22 T", "23 T", "24 T"]
=> Foo: errors: has 24 rows; no table has more than 23
coded.Nothing = ["1 A"]
coded.Name = ["1 A"]
coded.CommandError = ["1 A"]
=> Foo: coded: CommandError: the rows of CommandError are written as errors = [...]
=> Foo: coded: Nothing: no field has this key
=> Foo: coded: Name: request: a coded field is a u8 or u16, not a string
confirmed = ["answer", "request"]
assumed.errors = "why"
assumed.request = "why"
assumed.response = ""
=> Foo: standing of "answer"; it must be one of request, response, notification, errors
=> Foo: request is called both confirmed and assumed
=> Foo: standing of "errors", which the command does not have
=> Foo: assumed.response is missing
effect = "reads"
=> Foo: effect is "read" or "change", not "reads"
effect = "read"
address = "Name"
=> Foo: write address = ["Key", ...]
=> Foo: a read says why it is believed to be one: harmless = "..."
harmless = "it only looks"
unasked = ""
=> Foo: harmless is said of a read: effect = "read"
=> Foo: say what asks for its notifications, subscribes = "Key", or when they come without: unasked = "..."
subscribes = "Name"
progress = "Percent"
=> Foo: its notifications are subscribed to, or they come unasked; say one of the two
=> Foo: subscribes: its request has no number "Name"
=> Foo: progress: its notification has no number "Percent"
request = ["Level: u8", "N: u8", { list = "Names", count = "N", items = ["Side: u8"] }]
unasked = ""
subscribes = "Level"
address = ["listOfNames", "Side", "N", "Level"]
=> Foo: address: its request has no field "Side"
=> Foo: address: "N" names no object; a count and the subscribing field do not, and each key stands once
=> Foo: address: "Level" names no object; a count and the subscribing field do not, and each key stands once
confirmed_by = "me"
=> Foo: confirmed_by belongs into an overlay; the catalogue itself is confirmed or assumed

request = ["B: u8", { layout = "T" }, { layout = "Nix" }]
[layouts]
T = ["A: u8"]
=> Foo: request: unknown layout "Nix"; known in this file: T
[layouts]
T = ["A: u8"]
U = [{ layout = "T" }]
=> layouts.T: no message uses it
=> layouts.U: no message uses it
request = [{ layout = "T" }]
[layouts]
T = ["N: u8", { list = "X", count = "N", items = ["B: u8", { layout = "U" }] }]
U = ["A: u8", { layout = "T" }]
=> Foo: request: layouts.U: a layout may not use itself: T > U > T
request = ["B: u8", { layout = "T" }, { layout = "U" }]
[layouts]
T = "A: u8"
U = []
=> layouts.T: fields must be an array in wire order, not str
=> layouts.U: has no field
request = [{ layout = "t" }, { layout = "Foo" }]
[layouts]
t = ["A: u8"]
Foo = ["B: u8"]
=> layouts.t: "t" is no name for a layout; names are in upper camel case
=> layouts.Foo: has the name of a command of this file
request = [{ layout = "T", note = "x" }, { layout = ["T"] }]
[layouts]
T = ["A: u8"]
=> Foo: request: unknown key "note"; known are layout
=> Foo: request: the name of a layout must be a string, not ['T']
# What is wrong inside is said once, with every message that uses it; what is wrong for one, for that one.
request = [{ layout = "T" }]
notification = [{ layout = "T" }]
[layouts]
T = ["A: u7", { list = "X", count = "A", items = ["b: u8"] }]
=> Foo: request: layouts.T.A: unknown kind "u7"; kinds are u8, u16, u32, u64, string, uuid
   (also in Foo: notification)
=> Foo: request: layouts.T.listOfX: its count "A" is a u7; a count is an integer (also in Foo: notification)
=> Foo: request: layouts.T.listOfX.b: "b" is no key; keys are in upper camel case (also in Foo: notification)
request = ["Kind: string", { layout = "T" }]
notification = ["Kind: u8", "ID: u8", { layout = "T" }]
[layouts]
T = ["ID: uuid", { variant = "v", on = "Kind", alternatives = ONE }]
=> Foo: request: layouts.T.ID: a request carries no uuid; identifiers sent to the machine are strings
=> Foo: request: layouts.T.v: its discriminator "Kind" is a string, not an integer
=> Foo: notification: layouts.T.ID: the key "ID" stands in this record twice

title = "Test"
layouts = 5
[Foo]
=> layouts: write [layouts] and below it Name = ["Key: kind", ...]
id = 2
=> Foo: has id 2; the control list says 1
[Foo]
=> title is missing
title = "Test"
standing = "sure"
[Foo]
=> standing is "confirmed" or "assumed", not "sure"
[A]
id = 80
notification = ["A: u8"]
unasked = "always"
errors = ["1 A"]
=> A: errors: rows are given, but neither response nor notification has a CommandError
=> A: notification: does not exist in the control list
=> A: response: is in the control list but not defined
[A]
id = 80
request = ["A: u8"]
response = ["A: u8"]
[B]
id = 80
response = ["A: u8"]
=> A: request: does not exist in the control list
title = "Test"
[Bar]
id = 1
response = ["A: u8"]
[Foo]
=> Foo: id 1 belongs to Bar (family.toml)
=> Bar: is not in the control list index.toml
# Foo's response begins the name of Foo's item as well; the longest name owns it. A C++ type has but one meaning.
response = ["N: u8", { list = "Delay", count = "N", items = ["A: u8"] }]
[FooResponseDelayItem]
id = 80
response = ["A: u8"]
=> FooResponseDelayItem: is not in the control list index.toml
=> FooResponseDelayItem: its description is named FooResponseDelayItem, as one of Foo is
title =
=> cannot be read: Invalid value (at line 10, column 8)
"""


@pytest.mark.parametrize(("text", "expected"), cases(WRONG))
def test_wrong_definitions(tmp_path: Path, text: str, expected: list[str]) -> None:
    folder_with(tmp_path, family=family(text))
    assert findings_of(tmp_path) == [f"family.toml: {each}" for each in expected]


def test_named_layouts_come_to_what_they_stand_for(tmp_path: Path) -> None:
    # A count or a discriminator may stand outside of the layout that needs it.
    data = '{ variant = "v", on = "Kind", alternatives = ' + ONE + " }"
    items = '{ list = "X", count = "N", note = "all", items = ["ID: u16  # which", %s] }'
    request = 'request = ["Kind: u8", "N: u8", %s, "Last: u8"]'
    layouts = f"[layouts]\nItems = [{items}]\nData = [{data}]\n" % '{ layout = "Data" }'
    plain, named = request % (items % data), request % '{ layout = "Items" }' + "\n" + layouts
    first, second = (accepted(folder_with(tmp_path, family=family(text))) for text in (plain, named))
    assert emit_cpp.emit(first) == emit_cpp.emit(second)
    assert emit_json.emit(first) == emit_json.emit(second)


def test_names_of_different_commands_may_not_meet(tmp_path: Path) -> None:
    # SetInput's response begins the names of SetInputResponseDelay; that alone is no collision.
    index = 'commands = ["1 SetInput - response -", "2 SetInputResponseDelay request response -"]'
    delays = '{ list = "Delays", count = "Count", items = ["A: u8"] }'
    fine = f"""
[SetInput]
id = 1
response = ["Count: u8", {delays}]
[SetInputResponseDelay]
id = 2
request = ["A: u8"]
response = ["A: u8"]
"""
    folder_with(tmp_path, index, family=HEAD + fine)
    assert findings_of(tmp_path) == []
    variant = '{ variant = "v", on = "Count", alternatives = ' + ONE.replace('"A"', '"DelayRequest"') + " }"
    folder_with(tmp_path, index, family=HEAD + fine.replace(delays, variant))
    assert findings_of(tmp_path) == [
        "family.toml: SetInputResponseDelay: a record of its request is named SetInputResponseDelayRequest, "
        "as one of SetInput is"
    ]


def test_everything_is_reported_at_once_and_nothing_written(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    folder_with(tmp_path, family=family('request = ["A: u7", "b: u8"]\nerrors = ["0 x"]'))
    out = tmp_path / "out"
    words = ["--catalogue", str(tmp_path), "--partial", "--cpp", str(out), "--json", str(out / "c.json")]
    assert main(words) == 1
    assert capsys.readouterr().err.count("family.toml: Foo: ") == 3
    assert not out.exists()


def test_totals_and_absent_commands(tmp_path: Path) -> None:
    folder_with(tmp_path, INDEX + "totals = { commands = 3, request = 2 }", family=HEAD + GOOD)
    assert findings_of(tmp_path, partial=False) == [
        "index.toml: A: is listed with id 80 but defined nowhere",
        "index.toml: B: is listed with id 80 but defined nowhere",
        "index.toml: totals: 1 of kind commands are defined, 3 are expected",
        "index.toml: totals: 1 of kind request are defined, 2 are expected",
    ]
    assert findings_of(tmp_path, partial=True) == []


# -- overlays -----------------------------------------------------------------------------------------


def test_an_overlay_replaces_and_adds_commands(tmp_path: Path) -> None:
    base = folder_with(tmp_path / "base", family=HEAD + GOOD)
    by = "X200, 7.1, 2026-02-03, plant 4"
    mine = f"""
confirmed_by = "{by}"
[Foo]
notification = [{{ layout = "State" }}]
assumed.request = "not seen yet"
[layouts]
State = ["State: u16"]
[Extra]
id = 900
response = ["A: u8"]"""
    catalogue = accepted(base, folder_with(tmp_path / "site", "", mine=family(mine)))
    commands = {command.name: command for command in catalogue.commands()}
    standings = {message.role: message.standing for message in commands["Foo"].messages}
    assert (standings["notification"].name, standings["notification"].confirmed_by) == ("site-confirmed", by)
    assert (standings["request"].name, standings["request"].why) == ("assumed", "not seen yet")
    families = {each.name: [command.name for command in each.commands] for each in catalogue.families}
    assert families == {"family": ["Foo"], "mine": ["Extra"]}
    assert "std::uint16_t state{}" in emit_cpp.emit(catalogue)["include/vorlinkit/commands/family.hpp"]


WRONG_OVERLAYS = """
request = ["Name: sting"]
=> Foo: request: Name: unknown kind "sting"; kinds are u8, u16, u32, u64, string, uuid
standing = "confirmed"
[Foo]
=> an overlay confirms with confirmed_by = "machine type, software version, date, by whom"
[Extra]
id = 80
response = ["A: u8"]
=> Extra: id 80 belongs to A (family.toml)
notification = ["State: u8", { layout = "Named" }]
=> Foo: notification: unknown layout "Named"; known in this file: none;
   an overlay cannot use those of the catalogue
[A]
id = 80
=> A: response: is in the control list but not defined
"""


@pytest.mark.parametrize(("text", "expected"), cases(WRONG_OVERLAYS))
def test_overlays_are_judged_alike(tmp_path: Path, text: str, expected: list[str]) -> None:
    named = 'request = [{ layout = "Named" }]\n[layouts]\nNamed = ["Name: string"]\n'
    base = folder_with(tmp_path / "base", family=family(named + '[A]\nid = 80\nresponse = ["A: u8"]'))
    site = folder_with(tmp_path / "site", "", mine=family(text))
    assert findings_of(base, [site]) == [f"{site}/mine.toml: {each}" for each in expected]


def test_an_overlay_has_no_list_of_commands(tmp_path: Path) -> None:
    base = folder_with(tmp_path / "base", family=HEAD + GOOD)
    site = folder_with(tmp_path / "site", GOOD)
    text = "the list of commands is the catalogue's; give the file another name"
    assert f"{site}/index.toml: {text}" in findings_of(base, [site])


# -- what is written ------------------------------------------------------------------------------------


def test_output_is_the_same_every_time_and_touched_only_by_changes(tmp_path: Path) -> None:
    folder_with(tmp_path / "c", family=HEAD + GOOD)
    first, again = (emit_cpp.emit(accepted(tmp_path / "c")) for _ in range(2))
    assert first == again
    path = tmp_path / "file"
    write(path, "text")
    path.chmod(0o444)  # a second write would fail
    before = path.stat().st_mtime_ns
    write(path, "text")
    assert path.stat().st_mtime_ns == before


# -- names ----------------------------------------------------------------------------------------------

ATTRIBUTES = {
    "NumberOfIDs": "number_of_i_ds", "listOfSignalIDs": "list_of_signal_i_ds", "FieldIID": "field_iid",
    "FieldIValue": "field_i_value", "NumColourNValueFrequencies": "num_colour_n_value_frequencies",
    "Colour1Gain": "colour1_gain", "EnableGeneralDefect1Spatial": "enable_general_defect1_spatial",
    "AISortBoardID": "ai_sort_board_id", "LEDStripID": "led_strip_id", "CSVData": "csv_data",
    "IPAddress": "ip_address", "VORLINServerStartTime": "vorlin_server_start_time",
    "DatasetUUID": "dataset_uuid", "DNSServer": "dns_server",
    "listOfCurrentOverallGain": "list_of_current_overall_gain",
}  # fmt: skip


def test_names() -> None:
    assert {key: names.attribute(key) for key in ATTRIBUTES} == ATTRIBUTES
    assert names.command_snake("UiLogInOut") == "ui_log_in_out"
    assert names.command_constant("GetIrLightingFault") == "GET_IR_LIGHTING_FAULT_COMMAND_ID"
    assert names.command_constant("NoOpCommand") == "NO_OP_COMMAND_COMMAND_ID"
    assert [names.cpp_member(word) for word in ("default", "class", "name")] == ["default_", "class_", "name"]


@given(st.from_regex(r"[A-Z][A-Za-z0-9]{0,20}", fullmatch=True))
def test_an_attribute_is_its_key_with_separators(key: str) -> None:
    attribute = names.attribute(key)
    assert attribute.replace("_", "") == key.lower()
    assert not attribute.startswith("_") and "__" not in attribute


FIELD_TEXT = st.one_of(
    st.text(max_size=12),
    st.builds("{}: {}".format, st.text(max_size=8), st.sampled_from(["u8", "string", "u9", ""])),
)
FIELD_KEYS = "list blob variant layout on count items item alternatives name when fields note".split()
FIELD = st.recursive(
    st.one_of(FIELD_TEXT, st.integers(), st.booleans()),
    lambda inner: st.dictionaries(
        st.sampled_from(FIELD_KEYS),
        st.one_of(st.just("Foos"), st.text(max_size=6), st.lists(inner, max_size=3)),
    ),
    max_leaves=12,
)


@given(st.lists(FIELD, max_size=4))
def test_no_definition_upsets_the_generator(entries: list[object]) -> None:
    """Whatever stands in a file, it is judged, never answered with a traceback."""
    findings: list[Finding] = []
    data = {"title": "X", "layouts": {"Foos": entries}, "Foo": {"id": 1, "response": entries}}
    catalogue = Catalogue(read_families([Document("x.toml", "x", 0, data)], findings))
    findings += validate(catalogue, Index("index.toml"), partial=True)
    assert all(str(finding) for finding in findings)


ODD = """
[Foo]
id = 1
subscribes = "Level"
address = ["Class"]
request = [
  "Level: u8", "Timeout: u8", "Class: string", "Size: u32", { blob = "Data", count = "Size", item = "Byte" },
  "Kind: u8", { variant = "shape", on = "Kind", alternatives = [
    { name = "A", when = [1], fields = ["X: u8"] }, { name = "B", when = [2], fields = ["Y: u8"] } ] },
]
response = ["Kind: u8"]
notification = ["Class: string"]
"""


def test_parameters_of_a_method(tmp_path: Path) -> None:
    files = emit_methods.emit(accepted(folder_with(tmp_path, odd=HEAD + ODD)))
    for name, text in files.items():
        compile(text, name, "exec")
    # What follows from other values is none; a name that is taken is marked; what may be left out goes by name alone.
    takes = "self, timeout_: int, class_: str, data: bytes | bytearray | memoryview, shape: {}, *, level: int = {}, "
    shape = "records.FooRequestA | records.FooRequestB | tuple[str, Any]"
    listens = "handler: Callable[[records.FooNotification], object] | None = None, buffer: int = 1000, "
    end = "timeout: float | None = None"
    methods = files["client/methods.py"]
    assert f"def foo({takes.format(shape, 0)}{end}, check: bool = True) -> records.FooResponse:" in methods
    assert (
        f"def foo({takes.format(shape, 1)}{listens}{end}) -> Subscription[records.FooNotification]:"
        in methods
    )
    assert methods.count("(level, timeout_, class_, data, shape)") == 2
    assert "subscribes=0, address=(2,), carried=(('class',),))" in files["client/plans.py"]
