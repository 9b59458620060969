"""Wrong definitions, each with what the generator says about it; and what right ones come to."""

from __future__ import annotations

import json
from pathlib import Path

import pytest
from hypothesis import given
from hypothesis import strategies as st

from generator import emit_cpp, emit_json, names
from generator.__main__ import main, read_catalogue, write
from generator.model import Variant

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


GOOD = """
[Foo]
id = 1
request = ["Name: string"]
response = ["CommandError: u16"]
notification = ["State: u8"]
"""

ONE = '[{ name = "A", when = [1], fields = ["X: u8"] }]'

# What the definition of Foo says -> the finding. {} stands for 'family.toml: Foo'.
FIELD_CASES = [
    ('request = ["A: u7"]', '{}: request: A: unknown kind "u7"; kinds are u8, u16, u32, u64, string, uuid'),
    ('request = ["A u8"]', '{}: request: "A u8" is no field; write "Key: kind" or "Key: kind  # note"'),
    ('request = ["a: u8"]', '{}: request: a: "a" is no key; keys are in upper camel case'),
    ('request = ["A: u8", "A: u16"]', '{}: request: A: the key "A" stands in this record twice'),
    (
        'request = ["NumberOfIDs: u8", "NumberOfI_Ds: u8"]',
        '{}: request: NumberOfI_Ds: "NumberOfI_Ds" is no key; keys are in upper camel case',
    ),
    ('request = ["AB1: u8", "Ab1: u8"]', '{}: request: Ab1: has the attribute "ab1", as AB1 has'),
    (
        r'request = ["A: u8  # C:\\"]',
        "{}: request: a note is one line of printable characters that does not end in a backslash",
    ),
    (
        r'request = ["A: u8"]' + '\nwhy = """one\ntwo"""',
        "{}: why is one line of printable characters that does not end in a backslash",
    ),
    ("request = []", "{}: request: has no field; a message without a payload is not listed at all"),
    ('request = "A: u8"', "{}: request: fields must be an array in wire order, not str"),
    (
        "request = [5]",
        '{}: request: 5 is no field; a field is "Key: kind" or a list, blob, variant or layout table',
    ),
    (
        'request = ["ID: uuid"]',
        "{}: request: ID: a request carries no uuid; identifiers sent to the machine are strings",
    ),
    ('request = ["CommandError: u16"]', "{}: request: CommandError: a request carries no command error"),
    ('response = ["CommandError: u8"]', "{}: response: CommandError: a command error is a u16, not a u8"),
    (
        'request = [{ list = "X", count = "N", items = ["A: u8"] }, "N: u8"]',
        '{}: request: listOfX: its count "N" is not an earlier field of the same record',
    ),
    (
        'request = ["N: string", { list = "X", count = "N", items = ["A: u8"] }]',
        '{}: request: listOfX: its count "N" is a string; a count is an integer',
    ),
    (
        'request = ["N: u8", { list = "X", count = "N", items = [] }]',
        "{}: request: listOfX: its items have no field",
    ),
    (
        'request = ["N: u8", { list = "X", count = "N", items = ["M: u8", '
        '{ list = "Y", count = "N", items = ["A: u8"] }] }]',
        '{}: request: listOfX.listOfY: its count "N" is not an earlier field of the same record',
    ),
    (
        'request = ["N: u8", { list = "X", count = "N", item = ["A: u8"] }]',
        '{}: request: listOfX: unknown key "item"; known are list, count, items, note',
    ),
    (
        'request = [{ blob = "Frame", count = "Size", item = "Byte" }]',
        '{}: request: Frame: its count "Size" is not an earlier field of the same record',
    ),
    (
        'request = [{ blob = "Frame", count = "Size" }]',
        "{}: request: Frame: the key of a blob's byte is missing",
    ),
    (
        'request = [{ variant = "v", on = "ID", alternatives = ' + ONE + " }]",
        '{}: request: v: its discriminator "ID" is not an earlier field of this or an enclosing record',
    ),
    (
        'request = ["ID: string", { variant = "v", on = "ID", alternatives = ' + ONE + " }]",
        '{}: request: v: its discriminator "ID" is a string, not an integer',
    ),
    (
        'request = ["ID: u8", { variant = "v", on = "ID", alternatives = '
        '[{ name = "A", when = [256], fields = ["X: u8"] }] }]',
        '{}: request: v: 256 does not fit "ID", which is a u8',
    ),
    (
        'request = ["ID: u8", { variant = "v", on = "ID", alternatives = [] }]',
        "{}: request: v: has no alternatives",
    ),
    (
        'request = ["ID: u8", { variant = "v", on = "ID", alternatives = '
        '[{ name = "A", when = [], fields = ["X: u8"] }] }]',
        "{}: request: v: alternative A: when is empty, so nothing selects it",
    ),
    (
        'request = ["ID: u8", { variant = "v", on = "ID", alternatives = [{ name = "A", when = [1], fields = [] }] }]',
        "{}: request: v: alternative A: has no field",
    ),
    (
        'request = ["ID: u8", { variant = "v", on = "ID", alternatives = ['
        '{ name = "A", when = [1], fields = ["X: u8"] }, { name = "B", when = [2, 1], fields = ["Y: u8"] }] }]',
        "{}: request: v: alternative B: 1 already selects A",
    ),
    (
        'request = [{ variant = "v", on = "ID", alternatives = ['
        '{ name = "A", when = [1], fields = ["ID: u8"] }, { name = "B", when = [2], fields = ["Y: u8", "ID: u8"] }] }]',
        '{}: request: v: alternative B: does not begin with "ID" as the others do',
    ),
    (
        'request = [{ variant = "v", on = "ID", alternatives = ['
        '{ name = "A", when = [1], fields = ["ID: u8"] }, { name = "B", when = [2], fields = ["ID: u16"] }] }]',
        '{}: request: v: its discriminator "ID" has different kinds: u16, u8',
    ),
    (
        'request = ["ID: u8", "X: u8", { variant = "v", on = "ID", alternatives = ' + ONE + " }]",
        '{}: request: v: the key "X" stands in this record twice',
    ),
    (
        'request = ["ID: u8", { variant = "Data", on = "ID", alternatives = ' + ONE + " }]",
        '{}: request: Data: "Data" is no attribute; attributes are in lower snake case',
    ),
]

COMMAND_CASES = [
    (
        "idd = 1",
        '{}: unknown key "idd"; known are id, request, response, notification, errors, coded, confirmed, '
        "assumed, why, confirmed_by, about",
    ),
    ('errors = ["0x10000 Text"]', '{}: errors: row 0x10000 "Text": the code does not fit 16 bits'),
    ('errors = ["0 Text"]', '{}: errors: row 0x0000 "Text": 0 is success and has no row'),
    ('errors = ["1 A", "1 B"]', '{}: errors: row 0x0001 "B": the code has a row already'),
    (
        'errors = ["1 Text; "]',
        '{}: errors: row 0x0001 "Text; ": the text ends in ";"; the separator is added when it is rendered',
    ),
    ('errors = ["1 Text "]', '{}: errors: row 0x0001 "Text ": the text is empty or has blanks at its ends'),
    ('errors = ["one Text"]', '{}: errors: \'one Text\' is no row; write "0x0001 Text" or "1 Text"'),
    (
        f"errors = [{', '.join(repr(f'{code} T') for code in range(1, 25))}]",
        "{}: errors: has 24 rows; no table has more than 23",
    ),
    ('coded.Nothing = ["1 A"]', "{}: coded: Nothing: no field has this key"),
    ('coded.Name = ["1 A"]', "{}: coded: Name: request: a coded field is a u8 or u16, not a string"),
    (
        'coded.CommandError = ["1 A"]',
        "{}: coded: CommandError: the rows of CommandError are written as errors = [...]",
    ),
    (
        'confirmed = ["answer"]',
        '{}: standing of "answer"; it must be one of request, response, notification, errors',
    ),
    ('assumed.errors = "why"', '{}: standing of "errors", which the command does not have'),
    ('confirmed = ["request"]\nassumed.request = "why"', "{}: request is called both confirmed and assumed"),
    ('assumed.request = ""', "{}: assumed.request is missing"),
    (
        'confirmed_by = "me"',
        "{}: confirmed_by belongs into an overlay; the catalogue itself is confirmed or assumed",
    ),
]


def with_message(text: str) -> str:
    """The good definition with one message replaced."""
    role = text.split(" ", 1)[0]
    lines = [text if line.startswith(role) else line for line in GOOD.splitlines()]
    return HEAD + "\n".join(lines)


@pytest.mark.parametrize(("text", "finding"), FIELD_CASES)
def test_wrong_field(tmp_path: Path, text: str, finding: str) -> None:
    folder_with(tmp_path, family=with_message(text))
    assert finding.replace("{}", "family.toml: Foo") in findings_of(tmp_path)


@pytest.mark.parametrize(("text", "finding"), COMMAND_CASES)
def test_wrong_command(tmp_path: Path, text: str, finding: str) -> None:
    folder_with(tmp_path, family=HEAD + GOOD + text)
    assert findings_of(tmp_path) == [finding.replace("{}", "family.toml: Foo")]


# [layouts] of the file, what Foo has in request and notification -> the findings. {} stands for 'family.toml: Foo'.
LAYOUT_CASES = [
    (
        'T = ["A: u8"]',
        '["B: u8", { layout = "T" }, { layout = "Nix" }]',
        ['{}: request: unknown layout "Nix"; known in this file: T'],
    ),
    (
        'T = ["A: u8"]\nU = [{ layout = "T" }]',
        '["B: u8"]',
        ["family.toml: layouts.T: no message uses it", "family.toml: layouts.U: no message uses it"],
    ),
    (
        'T = ["N: u8", { list = "X", count = "N", items = ["B: u8", { layout = "U" }] }]\nU = ["A: u8", { layout = "T" }]',
        '[{ layout = "T" }]',
        ["{}: request: layouts.U: a layout may not use itself: T > U > T"],
    ),
    (
        'T = "A: u8"',
        '["B: u8", { layout = "T" }]',
        ["family.toml: layouts.T: fields must be an array in wire order, not str"],
    ),
    ("T = []", '["B: u8", { layout = "T" }]', ["family.toml: layouts.T: has no field"]),
    (
        't = ["A: u8"]\nFoo = ["B: u8"]',
        '[{ layout = "t" }, { layout = "Foo" }]',
        [
            'family.toml: layouts.t: "t" is no name for a layout; names are in upper camel case',
            "family.toml: layouts.Foo: has the name of a command of this file",
        ],
    ),
    (
        'T = ["A: u8"]',
        '[{ layout = "T", note = "x" }, { layout = ["T"] }]',
        [
            '{}: request: unknown key "note"; known are layout',
            "{}: request: the name of a layout must be a string, not ['T']",
        ],
    ),
    # What is wrong inside is said once, with every message that uses it; what is wrong for one of them, for that one.
    (
        'T = ["A: u7", { list = "X", count = "A", items = ["b: u8"] }]',
        '[{ layout = "T" }]\nnotification = [{ layout = "T" }]',
        [
            '{}: request: layouts.T.A: unknown kind "u7"; kinds are u8, u16, u32, u64, string, uuid (also in Foo: notification)',
            '{}: request: layouts.T.listOfX: its count "A" is a u7; a count is an integer (also in Foo: notification)',
            '{}: request: layouts.T.listOfX.b: "b" is no key; keys are in upper camel case (also in Foo: notification)',
        ],
    ),
    (
        'T = ["ID: uuid", { variant = "v", on = "Kind", alternatives = ' + ONE + " }]",
        '["Kind: string", { layout = "T" }]\nnotification = ["Kind: u8", "ID: u8", { layout = "T" }]',
        [
            "{}: request: layouts.T.ID: a request carries no uuid; identifiers sent to the machine are strings",
            '{}: request: layouts.T.v: its discriminator "Kind" is a string, not an integer',
            '{}: notification: layouts.T.ID: the key "ID" stands in this record twice',
        ],
    ),
]


@pytest.mark.parametrize(("layouts", "messages", "expected"), LAYOUT_CASES)
def test_wrong_layouts(tmp_path: Path, layouts: str, messages: str, expected: list[str]) -> None:
    foo = f'[Foo]\nid = 1\nresponse = ["CommandError: u16"]\nrequest = {messages}\n'
    if "notification" not in messages:
        foo += 'notification = ["State: u8"]'
    folder_with(tmp_path, family=f"{HEAD}[layouts]\n{layouts}\n{foo}")
    assert findings_of(tmp_path) == [each.replace("{}", "family.toml: Foo") for each in expected]


def test_named_layouts_come_to_what_they_stand_for(tmp_path: Path) -> None:
    # A count or a discriminator may stand outside of the layout that needs it.
    data = '{ variant = "v", on = "Kind", alternatives = ' + ONE + " }"
    items = '{ list = "X", count = "N", note = "all", items = ["ID: u16  # which", %s] }'
    foo = GOOD.replace('"Name: string"', '"Kind: u8", "N: u8", %s, "Last: u8"')
    use = '{ layout = "%s" }'
    layouts = f"[layouts]\nItems = [{items % (use % 'Data')}]\nData = [{data}]\n"
    outputs = []
    for text in (foo % (items % data), layouts + foo % (use % "Items")):
        catalogue, findings = read_catalogue(folder_with(tmp_path, family=HEAD + text), partial=True)
        assert not findings
        outputs.append((emit_cpp.emit(catalogue), emit_json.emit(catalogue)))
    assert outputs[0] == outputs[1]


FILE_CASES = [
    (
        "layouts = 5\n" + HEAD + GOOD,
        ['family.toml: layouts: write [layouts] and below it Name = ["Key: kind", ...]'],
    ),
    (HEAD + GOOD.replace("id = 1", "id = 2"), ["family.toml: Foo: has id 2; the control list says 1"]),
    (GOOD, ["family.toml: title is missing"]),
    (HEAD + 'standing = "sure"\n' + GOOD, ['family.toml: standing is "confirmed" or "assumed", not "sure"']),
    (
        HEAD + '[Foo]\nid = 1\nrequest = ["A: u8"]\nnotification = ["A: u8"]\nerrors = ["1 A"]',
        [
            "family.toml: Foo: errors: rows are given, but neither response nor notification has a CommandError",
            "family.toml: Foo: response: is in the control list but not defined",
        ],
    ),
    (
        HEAD + '[A]\nid = 80\nrequest = ["A: u8"]\nresponse = ["A: u8"]\n[B]\nid = 80\nresponse = ["A: u8"]',
        ["family.toml: A: request: does not exist in the control list"],
    ),
    (
        HEAD + '[Bar]\nid = 1\nresponse = ["A: u8"]' + GOOD,
        [
            "family.toml: Foo: id 1 belongs to Bar (family.toml)",
            "family.toml: Bar: is not in the control list index.toml",
        ],
    ),
    # The type of Foo's item is that of command FooResponse's... list; the longest name owns it.
    (
        HEAD
        + GOOD.replace(
            '["CommandError: u16"]', '["N: u8", { list = "Delay", count = "N", items = ["A: u8"] }]'
        )
        + '[FooResponseDelayItem]\nid = 80\nresponse = ["A: u8"]',
        ["family.toml: FooResponseDelayItem: is not in the control list index.toml"],
    ),
    ("title = ", ["family.toml: cannot be read: Invalid value (at end of document)"]),
]


@pytest.mark.parametrize(("text", "expected"), FILE_CASES)
def test_wrong_file(tmp_path: Path, text: str, expected: list[str]) -> None:
    folder_with(tmp_path, family=text)
    assert [finding.replace(str(tmp_path) + "/", "") for finding in findings_of(tmp_path)] == expected


def test_names_of_different_commands_may_not_meet(tmp_path: Path) -> None:
    # SetInput's response begins the names of SetInputResponseDelay; that alone is no collision.
    index = 'commands = ["1 SetInput - response -", "2 SetInputResponseDelay request response -"]'
    fine = (
        HEAD
        + """
[SetInput]
id = 1
response = ["Count: u8", { list = "Delays", count = "Count", items = ["A: u8"] }]
[SetInputResponseDelay]
id = 2
request = ["A: u8"]
response = ["A: u8"]
"""
    )
    folder_with(tmp_path, index, family=fine)
    assert findings_of(tmp_path) == []
    variant = '{ variant = "v", on = "Count", alternatives = ' + ONE.replace('"A"', '"DelayRequest"') + " }"
    folder_with(
        tmp_path,
        index,
        family=fine.replace('{ list = "Delays", count = "Count", items = ["A: u8"] }', variant),
    )
    assert findings_of(tmp_path) == [
        "family.toml: SetInputResponseDelay: a record of its request is named SetInputResponseDelayRequest, "
        "as one of SetInput is"
    ]


def test_everything_is_reported_at_once_and_nothing_written(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    folder_with(tmp_path, family=with_message('request = ["A: u7", "b: u8"]') + '\nerrors = ["0 x"]')
    out = tmp_path / "out"
    assert (
        main(["--catalogue", str(tmp_path), "--partial", "--cpp", str(out), "--json", str(out / "c.json")])
        == 1
    )
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
    site = folder_with(
        tmp_path / "site",
        "",
        mine=f'confirmed_by = "{by}"\n[layouts]\nState = ["State: u16"]\n'
        + GOOD.replace('"State: u8"', '{ layout = "State" }')
        + 'assumed.request = "not seen yet"\n[Extra]\nid = 900\nresponse = ["A: u8"]',
    )
    catalogue, findings = read_catalogue(base, [site], partial=True)
    assert not findings
    commands = {command.name: command for command in catalogue.commands()}
    standings = {message.role: message.standing for message in commands["Foo"].messages}
    assert (standings["notification"].name, standings["notification"].confirmed_by) == ("site-confirmed", by)
    assert (standings["request"].name, standings["request"].why) == ("assumed", "not seen yet")
    assert [(f.name, [c.name for c in f.commands]) for f in catalogue.families] == [
        ("family", ["Foo"]),
        ("mine", ["Extra"]),
    ]
    assert "std::uint16_t state{}" in emit_cpp.emit(catalogue)["include/vorlinkit/commands/family.hpp"]


@pytest.mark.parametrize(
    ("text", "finding"),
    [
        (
            GOOD.replace("string", "sting"),
            'Foo: request: Name: unknown kind "sting"; kinds are u8, u16, u32, u64, string, uuid',
        ),
        (
            'standing = "confirmed"' + GOOD,
            'an overlay confirms with confirmed_by = "machine type, software version, date, by whom"',
        ),
        ('[Extra]\nid = 1\nresponse = ["A: u8"]', "Extra: id 1 belongs to Foo (family.toml)"),
        (
            GOOD.replace('"State: u8"', '"State: u8", { layout = "Named" }'),
            'Foo: notification: unknown layout "Named"; known in this file: none; '
            "an overlay cannot use those of the catalogue",
        ),
        (
            GOOD.replace('notification = ["State: u8"]', ""),
            "Foo: notification: is in the control list but not defined",
        ),
    ],
)
def test_overlays_are_judged_alike(tmp_path: Path, text: str, finding: str) -> None:
    named = GOOD.replace('"Name: string"', '{ layout = "Named" }')
    base = folder_with(tmp_path / "base", family=HEAD + '[layouts]\nNamed = ["Name: string"]' + named)
    site = folder_with(tmp_path / "site", "", mine=text)
    assert [each.replace(str(tmp_path) + "/", "") for each in findings_of(base, [site])] == [
        f"{tmp_path}/site/mine.toml: {finding}".replace(str(tmp_path) + "/", "")
    ]


def test_an_overlay_has_no_list_of_commands(tmp_path: Path) -> None:
    base = folder_with(tmp_path / "base", family=HEAD + GOOD)
    site = folder_with(tmp_path / "site", GOOD)
    text = "the list of commands is the catalogue's; give the file another name"
    assert f"{site}/index.toml: {text}" in findings_of(base, [site])


# -- what is written ------------------------------------------------------------------------------------


def test_output_is_the_same_every_time_and_touched_only_by_changes(tmp_path: Path) -> None:
    folder_with(tmp_path / "c", family=HEAD + GOOD)
    first, again = (emit_cpp.emit(read_catalogue(tmp_path / "c", partial=True)[0]) for _ in range(2))
    assert first == again
    path = tmp_path / "file"
    write(path, "text")
    path.chmod(0o444)  # a second write would fail
    before = path.stat().st_mtime_ns
    write(path, "text")
    assert path.stat().st_mtime_ns == before


def test_json_carries_layouts(tmp_path: Path) -> None:
    text = (
        HEAD
        + GOOD.replace(
            '"Name: string"',
            '"N: u8  # how many", { list = "Names", count = "N", items = ["Name: string"] }, "S: u32", '
            '{ blob = "Frame", count = "S", item = "FrameByte" }, { variant = "v", on = "N", alternatives = ['
            '{ name = "A", when = [1, 2], fields = ["X: u8"] }] }',
        )
        + 'errors = ["0x0010 Broken"]\ncoded.State = ["1 On"]'
    )
    folder_with(tmp_path, family=text)
    catalogue, findings = read_catalogue(tmp_path, partial=True)
    assert not findings
    (command,) = json.loads(emit_json.emit(catalogue))["commands"]
    assert command["errors"] == [{"code": 16, "text": "Broken"}]
    assert command["coded"] == {"State": [{"code": 1, "text": "On"}]}
    fields = command["messages"]["request"]["fields"]
    assert fields[0] == {"key": "N", "kind": "u8", "attribute": "n", "note": "how many"}
    assert fields[1]["type"] == "FooRequestNamesItem"
    assert (fields[1]["key"], fields[1]["attribute"], fields[1]["count"]) == (
        "listOfNames",
        "list_of_names",
        "N",
    )
    assert (fields[3]["key"], fields[3]["item"], fields[3]["item_attribute"]) == (
        "Frame",
        "FrameByte",
        "frame_byte",
    )
    assert fields[4]["alternatives"][0]["type"] == "FooRequestA"
    assert (fields[4]["inside"], fields[4]["alternatives"][0]["when"]) == (False, [1, 2])


def test_records_stand_before_the_record_that_holds_them(tmp_path: Path) -> None:
    folder = Path(__file__).resolve().parents[1] / "commands" / "every_kind"
    catalogue, _ = read_catalogue(folder)
    leading = next(command for command in catalogue.commands() if command.name == "Leading").message(
        "request"
    )
    assert leading
    assert [record.type.removeprefix("LeadingRequest") for record in leading.record.tree()] == [
        "OptionsItemPlain",
        "OptionsItemListedNamesItem",
        "OptionsItemListed",
        "OptionsItem",
        "",
    ]
    (option,) = leading.record.fields[1].item.fields  # type: ignore[union-attr]
    assert isinstance(option, Variant) and option.inside


# -- names ----------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("key", "attribute"),
    [
        ("NumberOfIDs", "number_of_i_ds"),
        ("listOfSignalIDs", "list_of_signal_i_ds"),
        ("FieldIID", "field_iid"),
        ("FieldIValue", "field_i_value"),
        ("NumColourNValueFrequencies", "num_colour_n_value_frequencies"),
        ("Colour1Gain", "colour1_gain"),
        ("EnableGeneralDefect1Spatial", "enable_general_defect1_spatial"),
        ("AISortBoardID", "ai_sort_board_id"),
        ("LEDStripID", "led_strip_id"),
        ("CSVData", "csv_data"),
        ("IPAddress", "ip_address"),
        ("VORLINServerStartTime", "vorlin_server_start_time"),
        ("DatasetUUID", "dataset_uuid"),
        ("DNSServer", "dns_server"),
        ("listOfCurrentOverallGain", "list_of_current_overall_gain"),
    ],
)
def test_attribute(key: str, attribute: str) -> None:
    assert names.attribute(key) == attribute


def test_command_names() -> None:
    assert names.command_snake("UiLogInOut") == "ui_log_in_out"
    assert (
        names.command_constant("GetIrLightingFaultReportingState")
        == "GET_IR_LIGHTING_FAULT_REPORTING_STATE_COMMAND_ID"
    )
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
FIELD = st.recursive(
    st.one_of(FIELD_TEXT, st.integers(), st.booleans()),
    lambda inner: st.dictionaries(
        st.sampled_from(
            [
                "list",
                "blob",
                "variant",
                "layout",
                "on",
                "count",
                "items",
                "item",
                "alternatives",
                "name",
                "when",
                "fields",
                "note",
            ]
        ),
        st.one_of(st.just("Foos"), st.text(max_size=6), st.lists(inner, max_size=3)),
    ),
    max_leaves=12,
)


@given(st.lists(FIELD, max_size=4))
def test_no_definition_upsets_the_generator(entries: list[object]) -> None:
    """Whatever stands in a file, it is judged, never answered with a traceback."""
    from generator.load import Document
    from generator.model import Catalogue, Finding, Index
    from generator.notation import read_families
    from generator.validate import validate

    findings: list[Finding] = []
    data = {"title": "X", "layouts": {"Foos": entries}, "Foo": {"id": 1, "response": entries}}
    document = Document("x.toml", "x", 0, data)
    catalogue = Catalogue(read_families([document], findings))
    findings += validate(catalogue, Index("index.toml"), partial=True)
    assert all(str(finding) for finding in findings)
