"""The typing stub: a strict type checker accepts every block and finds a mistake, and it tells the truth."""

import os
import subprocess
import sys
from collections.abc import Iterator

import vorlinkit_python
from catalogue_records import BITS, COMMANDS

BUILT = os.path.dirname(vorlinkit_python.__file__)


def check(arguments, folder):
    environment, command = {"MYPYPATH": BUILT, "PYTHONPATH": BUILT}, [sys.executable, "-m", *arguments]
    how = {"cwd": folder, "env": os.environ | environment, "capture_output": True, "text": True}
    return subprocess.run(command, **how, timeout=300)


def uses_of(expression, fields) -> Iterator[str]:
    """Statements that read and write every attribute of a record."""
    for field in fields:
        place = f"{expression}.{field['attribute']}"
        if field["kind"] in BITS:
            yield f"{place} = assert_type({place}, int)"
        elif field["kind"] in ("string", "uuid"):
            yield f"{place} = assert_type({place}, str)"
        elif field["kind"] == "list":
            yield f"{place} = assert_type({place}, list[v.{field['type']}])"
            yield f"{place} = (v.{field['type']}(),)"
            yield from uses_of(f"{place}[0]", field["items"])
        elif field["kind"] == "blob":
            yield f"{place}_bytes = assert_type({place}_bytes, bytes)"
            yield f"assert_type({place}[0].{field['item_attribute']}, int)"
        else:
            for alternative in field["alternatives"]:
                name = f"{expression.replace('.', '_').replace('[0]', '')}_{alternative['name']}"
                yield f"{name} = v.{alternative['type']}()"
                yield f"{place} = {name}"
                yield from uses_of(name, alternative["fields"])


def sample() -> Iterator[str]:
    yield "from typing import assert_type"
    yield "import vorlinkit_python as v"
    for command in COMMANDS:
        snake = command["snake"]
        yield f"assert_type(v.{snake.upper()}_COMMAND_ID, int)"
        for role, message in command["messages"].items():
            name = f"{snake}_{role}"
            if role == "request":
                yield f"{name} = v.{message['type']}()"
                yield f"assert_type(v.encode_{name}({name}), bytes)"
            else:
                yield f"{name} = v.decode_{name}(b'')"
            yield f"assert_type(v.{name}_to_json({name}), str)"
            yield from uses_of(name, message["fields"])
        if command["errors"] is not None:
            yield f"assert_type(v.{snake}_command_error_string(1), str)"
            yield f"assert_type(v.{snake}_command_error_codes().values[0].description, str)"


def test_every_block_is_typed_and_mistakes_are_found(tmp_path):
    lines = list(sample())
    mistakes = [
        "v.FlushLogRequest().log_name = 5",
        "v.GetAttachedMotorsResponse().list_of_motors = [v.FlushLogRequest()]",
        "v.CaptureFrameExRequestCaptureOptionsItem().capture_option = v.FlushLogRequest()",
        "v.encode_flush_log_request(b'')",
        "v.FlushLogRequest().logname",
    ]
    (tmp_path / "sample.py").write_text("\n".join([*lines, *mistakes]) + "\n")
    result = check(["mypy", "--strict", "--hide-error-context", "sample.py"], tmp_path)
    found = [int(line.split(":")[1]) for line in result.stdout.splitlines() if ": error:" in line]
    assert found == [len(lines) + 1 + n for n in range(len(mistakes))], result.stdout[-3000:] + result.stderr


def test_stub_and_module_agree(tmp_path):
    result = check(["mypy.stubtest", "vorlinkit_python", "--concise"], tmp_path)
    lines = result.stdout.splitlines()
    assert lines, result.stderr
    # Classes of the binding library have a metaclass of its own, which no stub can name.
    assert [line for line in lines if not line.endswith("is inconsistent, metaclass differs")] == []
