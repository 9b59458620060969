"""The generated part of the Python package: what the client knows of each command, and a method for each.

`client/plans.py` holds one plan per command, `client/methods.py` and `aio/methods.py` the methods of the machine that
users call, `records.pyi` the record classes for type checkers.
"""

from __future__ import annotations

import keyword
import textwrap
from collections.abc import Iterable, Iterator
from dataclasses import dataclass

from . import emit_stub
from .facts import echoed, in_words
from .model import (
    COMMAND_ERROR,
    INTEGER_BITS,
    Blob,
    Catalogue,
    Command,
    Family,
    Field,
    List,
    Message,
    Record,
    Scalar,
    Variant,
)

FILES = ("client/plans.py", "client/methods.py", "aio/methods.py", "records.pyi")
GENERATED = "# Generated from the command catalogue. Do not edit."
TAKEN = frozenset(("self", "timeout", "check", "handler", "buffer", *keyword.kwlist))
WIDTH = 110


def emit(catalogue: Catalogue) -> dict[str, str]:
    """Relative path -> text of every file."""
    listed = [(family, command) for family in catalogue.families for command in family.commands]
    listed.sort(key=lambda each: (each[1].id, each[1].name))
    commands = [command for _, command in listed]
    return {
        "client/plans.py": PLANS.format(
            generated=GENERATED,
            plans="\n".join(map(plan, commands)),
            all="".join(f"    {constant(command)},\n" for command in commands),
        ),
        "client/methods.py": methods(listed, BLOCKING),
        "aio/methods.py": methods(listed, ASYNC),
        "records.pyi": record_stub(commands),
    }


# -- parameters ---------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Parameter:
    """A field of a request as a parameter; `neutral` is the default that leaves it out, "" if there is none."""

    name: str
    field: Field
    neutral: str
    subscribes: bool

    @property
    def kind(self) -> str:
        match self.field:
            case Scalar(kind=kind):
                return kind
            case List():
                return "list"
            case Blob():
                return "blob"
            case Variant():
                return "variant"


def parameters(command: Command) -> list[Parameter]:
    """In wire order. Counts, lengths and discriminators follow from the others."""
    message = command.message("request")
    return [parameter(command, field) for field in given(message.record)] if message else []


def given(record: Record) -> list[Field]:
    derived = {field.count for field in record.fields if isinstance(field, List | Blob)}
    derived |= {field.on for field in record.fields if isinstance(field, Variant) and field.levels == 0}
    return [field for field in record.fields if not (isinstance(field, Scalar) and field.key in derived)]


def parameter(command: Command, field: Field) -> Parameter:
    name = field.attribute + "_" * (field.attribute in TAKEN)
    if isinstance(field, Scalar) and field.key == command.facts.subscribes:
        return Parameter(name, field, "0", True)
    optional = isinstance(field, List) and field.base.endswith("Options")
    return Parameter(name, field, "()" if optional else "", False)


def annotation(field: Field) -> str:
    """What a parameter takes, as a type."""
    match field:
        case Scalar():
            return "int" if field.is_integer else "str"
        case Blob():
            return "bytes | bytearray | memoryview"
        case List(item=item):
            return f"Iterable[{record_annotation(item)}]"
        case Variant():
            return variant_annotation(field)


def record_annotation(record: Record) -> str:
    """A record, its values in order, or by name; the value itself if it has only one."""
    fields = given(record)
    forms = [shown(record), "tuple[Any, ...]", "Mapping[str, Any]"]
    if len(fields) == 1:
        forms += annotation(fields[0]).split(" | ")
    return " | ".join(dict.fromkeys(forms))


def variant_annotation(field: Variant) -> str:
    return " | ".join([*(shown(each.record) for each in field.alternatives), "tuple[str, Any]"])


# -- plans --------------------------------------------------------------------------------------------


def constant(command: Command) -> str:
    return command.snake.upper()


def plan(command: Command) -> str:
    passed = parameters(command)
    keys = [getattr(each.field, "key", "") for each in passed]
    facts = command.facts
    address = [keys.index(key) for key in facts.address if key in keys]
    arguments = [str(command.id), f'"{command.name}"', f'"{command.snake}"', f'"{facts.effect}"']
    arguments += [repr(tuple(each.name for each in passed)), repr(tuple(each.kind for each in passed))]
    options = {
        "subscribes": keys.index(facts.subscribes) if facts.subscribes else -1,
        "unasked": bool(facts.unasked),
        "address": tuple(address),
        "carried": tuple(carried(passed[at].field, command.message("notification")) for at in address),
        "echoed": tuple(
            (at, path)
            for at, key in enumerate(keys)
            if key in echoed(command) and (path := path_of(key, command.message("response")))
        ),
        "has_error": path_of(COMMAND_ERROR, command.message("response")) != (),
        "answered": command.message("response") is not None,
    }
    neutral = {"subscribes": -1, "unasked": False, "has_error": False, "answered": True}
    arguments += [f"{name}={value!r}" for name, value in options.items() if value != neutral.get(name, ())]
    typed = f"Plan[{', '.join(answers(command))}]"
    return f"{constant(command)}: Final[{typed}] = Plan({', '.join(arguments)})"


def carried(field: Field, message: Message | None) -> tuple[str, ...]:
    """Where a notification repeats an address; items of a list are repeated one at a time."""
    if isinstance(field, List):
        only = field.item.fields[0]
        return path_of(only.key, message) if isinstance(only, Scalar) else ()
    return () if isinstance(field, Variant) else path_of(field.key, message)


def path_of(key: str, message: Message | None) -> tuple[str, ...]:
    """The attributes that lead to a scalar of a message: its own, or one that every alternative of a variant has."""
    for field in message.record.fields if message else ():
        if isinstance(field, Scalar) and field.key == key:
            return (field.attribute,)
        if isinstance(field, Variant):
            inner = [next(iter(each.record.fields), None) for each in field.alternatives]
            if all(isinstance(each, Scalar) and each.key == key for each in inner):
                assert isinstance(inner[0], Scalar)
                return (field.attribute, inner[0].attribute)
    return ()


def answers(command: Command) -> Iterator[str]:
    for role in ("response", "notification"):
        message = command.message(role)
        yield shown(message.record) if message else "None"


PLANS = '''"""What the client knows of each command: one plan each, named after it."""

{generated}

from __future__ import annotations

from typing import Any, Final

from vorlinkit import records

from .plan import Plan

{plans}

ALL: Final[tuple[Plan[Any, Any], ...]] = (
{all})
'''


# -- methods ------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Face:
    """What tells the methods for threads from those for asyncio."""

    about: str
    define: str
    wait: str
    package: str
    subscription: str


BLOCKING = Face("The methods of `vorlinkit.Machine`.", "def", "", ".", "with")
ASYNC = Face(
    "The methods of `vorlinkit.aio.Machine`.", "async def", "await ", "vorlinkit.client.", "async with"
)


def methods(listed: list[tuple[Family, Command]], face: Face) -> str:
    commands = [command for _, command in listed]
    return METHODS.format(
        generated=GENERATED,
        face=face,
        plans="from vorlinkit.client import plans" if face is ASYNC else "from . import plans",
        plan=f"from {face.package}plan import N, Plan, R",
        methods="\n".join(method(*each, face) for each in listed),
        subscribe="\n".join(
            subscribe(command, face) for command in commands if command.message("notification")
        ),
    )


def method(family: Family, command: Command, face: Face) -> str:
    passed = parameters(command)
    signature = ", ".join(
        ["self", *signed(passed, "0"), "timeout: float | None = None", "check: bool = True"]
    )
    message = command.message("response")
    returned = f"return {face.wait}" if message else face.wait
    return (
        f"    {face.define} {command.snake}({signature}) -> {shown(message.record) if message else 'None'}:\n"
        f"{docstring(method_doc(family, command, passed))}"
        f"        {returned}self._call(plans.{constant(command)}, {packed(passed)}, timeout, check)\n"
    )


def signed(passed: list[Parameter], level: str) -> list[str]:
    """The parameters, `*` included. Behind one without a default there is none with; such go by name alone."""
    required = [at for at, each in enumerate(passed) if not each.neutral]
    last = required[-1] if required else -1
    by_place = [each for at, each in enumerate(passed) if not each.neutral or at > last]
    by_name = [each for at, each in enumerate(passed) if each.neutral and at < last]
    return [*(declared(each, level) for each in by_place), "*", *(declared(each, level) for each in by_name)]


def declared(each: Parameter, level: str) -> str:
    default = level if each.subscribes else each.neutral
    return f"{each.name}: {annotation(each.field)}" + (f" = {default}" if default else "")


def packed(passed: list[Parameter]) -> str:
    names = ", ".join(each.name for each in passed)
    return f"({names}{',' if len(passed) == 1 else ''})"


def subscribe(command: Command, face: Face) -> str:
    message = command.message("notification")
    assert message is not None
    record = shown(message.record)
    passed = parameters(command)
    name = f"plans.{constant(command)}"
    end = [f"handler: Callable[[{record}], object] | None = None", "buffer: int = 1000"]
    if command.facts.unasked:
        keys = command.facts.address
        asked = [each for each in passed if getattr(each.field, "key", "") in keys]
        start = ["*", *(f"{each.name}: {annotation(each.field)} | None = None" for each in asked)]
        values = "".join(f"{each.name if each in asked else None}, " for each in passed)
        last, values = "None", f"({values})"
    else:
        asked, start, last = passed, signed(passed, "1"), "timeout"
        end.append("timeout: float | None = None")
        values = packed(passed)
        if any(isinstance(each.field, List) for each in passed):
            values = f"{name}.settled({values})"
    signature = ", ".join(["self", *start, *end])
    return (
        f"    def {command.snake}({signature}) -> Subscription[{record}]:\n"
        f"{docstring(subscribe_doc(command, asked, message))}"
        f"        return self._subscribe({name}, {values}, handler, buffer, {last})\n"
    )


METHODS = '''"""{face.about}"""

{generated}

from __future__ import annotations

from collections.abc import Callable, Iterable, Mapping
from typing import TYPE_CHECKING, Any

from vorlinkit import records
{plans}
{plan}

if TYPE_CHECKING:
    from .subscription import Subscription


class Methods:
    """One method per command. Parameters are the request's fields in wire order, without what follows from others."""

    __slots__ = ()

    {face.define} _call(self, plan: Plan[R, N], values: tuple[Any, ...], timeout: float | None, check: bool) -> R:
        raise NotImplementedError

{methods}

class SubscribeMethods:
    """One method per command that has notifications; what it returns is used in `{face.subscription}`."""

    __slots__ = ()

    def _subscribe(
        self,
        plan: Plan[R, N],
        values: tuple[Any, ...],
        handler: Callable[[N], object] | None,
        buffer: int,
        timeout: float | None,
    ) -> Subscription[N]:
        raise NotImplementedError

{subscribe}'''


# -- documentation ------------------------------------------------------------------------------------


def method_doc(family: Family, command: Command, passed: list[Parameter]) -> Iterator[str]:
    yield f"{command.name}, command {command.id}: {family.title[:1].lower()}{family.title[1:]}."
    yield " ".join([*([command.about] if command.about else []), *in_words(command)])
    yield from parameter_docs(command, passed)
    response = command.message("response")
    if response is None:
        yield "Nothing comes back but that the machine has answered."
    else:
        yield f"Returns `{response.record.type}`: {'; '.join(returned(response.record))}."
    if command.errors and command.errors.rows:
        rows = "; ".join(f"{row.code} {row.text}" for row in command.errors.rows)
        yield f"CommandError, which raises CommandRefused unless `check` is false: {rows}."
    yield from standings(command.messages)


def subscribe_doc(command: Command, passed: list[Parameter], message: Message) -> Iterator[str]:
    yield f"Notifications of {command.name}, command {command.id}, as `{message.record.type}`."
    if command.facts.unasked:
        # What only registers is sent all the same; anything else would be started by it.
        sent = (
            "The command itself is sent"
            if command.facts.effect == "read"
            else "Nothing is sent to ask for them"
        )
        yield f"They come unasked: {command.facts.unasked}. {sent}."
    yield from parameter_docs(command, passed)
    yield f"Each holds {'; '.join(returned(message.record))}."
    yield "With a `handler` each is passed to it, otherwise the newest `buffer` of them wait to be iterated over."
    yield from standings([message])


def parameter_docs(command: Command, passed: list[Parameter]) -> Iterator[str]:
    if passed:
        yield "\n".join(f"{each.name}: {parameter_doc(each)}" for each in passed)


def parameter_doc(each: Parameter) -> str:
    field = each.field
    note = f"; {field.note}" if field.note else ""
    match field:
        case Scalar() if field.is_integer:
            return f"0 to {2 ** INTEGER_BITS[field.kind] - 1}{note}"
        case Scalar():
            return f"{'a UUID as text' if field.kind == 'uuid' else 'text'}{note}"
        case Blob():
            return f"bytes{note}"
        case List(item=item):
            held = ", ".join(value_doc(one) for one in given(item))
            return f"items of `{item.type}` ({held}){note}"
        case Variant():
            return f"{value_doc(field)}{note}"


def value_doc(field: Field) -> str:
    match field:
        case Scalar():
            limits = f" 0 to {2 ** INTEGER_BITS[field.kind] - 1}" if field.is_integer else ""
            return f"{field.attribute}{limits}{f', {field.note}' if field.note else ''}"
        case Variant():
            return f"{field.attribute}: one of {', '.join(each.name for each in field.alternatives)}"
    return field.attribute


def returned(record: Record) -> Iterator[str]:
    for field in record.fields:
        yield f"{field.attribute} ({field.note})" if field.note else field.attribute


def standings(messages: Iterable[Message]) -> Iterator[str]:
    """Which layouts are not fixed by the protocol's description."""
    for message in messages:
        standing = message.standing
        if standing.name != "confirmed":
            why = standing.confirmed_by or standing.why
            yield f"The layout of the {message.role} is {standing.name}{f': {why}' if why else ''}."


def docstring(paragraphs: Iterator[str]) -> str:
    indent = " " * 8
    lines = []
    for paragraph in paragraphs:
        if lines:
            lines.append("")
        for line in paragraph.split("\n"):
            lines += textwrap.wrap(line, WIDTH - len(indent), break_long_words=False, break_on_hyphens=False)
    return emit_stub.docstring("\n".join(lines), indent)


# -- types --------------------------------------------------------------------------------------------


def shown(record: Record) -> str:
    """A record's class as generated modules name it: looked up when it is used, so that importing them is quick."""
    return f"records.{record.type}"


def record_stub(commands: list[Command]) -> str:
    listed = sorted({record.type for command in commands for record in command.records()})
    lines = "".join(f"from vorlinkit_python import {name} as {name}\n" for name in listed)
    return f"{GENERATED}\n\n{lines}"
