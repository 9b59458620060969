"""When the simulator misbehaves: rules from a scenario file (TOML or JSON) or from ``--rule``."""

from __future__ import annotations

import json
import re
import tomllib
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass, field
from difflib import get_close_matches
from pathlib import Path
from typing import Any, Final

from vorlinkit.catalogue import Catalogue

from ..answer import Answer
from .actions import ACTIONS, build, only_true, whole_number
from .misbehaviour import Misbehaviour, ScenarioError, leaves_undone

_WHEN: Final = ("command", "request", "from", "to", "connection")
_BESIDE: Final = {"size": "burst", "of": "burst", "later": "duplicate"}
_CONNECTION_ACTIONS: Final = ("silent", "drop_on_accept", "drop_after")


@dataclass
class Rule:
    """One rule: when it applies and what then goes wrong.

    Requests are counted per rule: the requests that match its command (and connection), from the start of the
    simulator on, so that a rule behaves the same in every run. ``first`` and ``last`` bound the count.
    """

    text: str
    command_id: int | None = None
    connection: int | None = None
    first: int = 1
    last: int | None = None
    actions: tuple[Misbehaviour, ...] = ()
    _met: int = field(default=0, repr=False)

    def meets(self, command_id: int, connection: int) -> bool:
        """Count this request, and say whether the rule is for it."""
        if self.command_id not in (None, command_id) or self.connection not in (None, connection):
            return False
        self._met += 1
        return self._met >= self.first and (self.last is None or self._met <= self.last)

    def leaves_undone(self, has_command_error: bool) -> bool:
        """Whether the request is not carried out; ``has_command_error``: whether its answer has one."""
        return any(leaves_undone(action, has_command_error) for action in self.actions)

    def apply(self, answer: Answer) -> Answer:
        for action in self.actions:
            answer = action.apply(answer)
        return answer


@dataclass(frozen=True)
class ConnectionRule:
    """What happens to a whole connection: never answered, dropped at once, or dropped after n frames."""

    text: str
    connection: int | None = None
    silent: bool = False
    drop_on_accept: str = ""
    drop_after: int | None = None


@dataclass
class Scenario:
    """All rules in force."""

    rules: list[Rule] = field(default_factory=list)
    connection_rules: list[ConnectionRule] = field(default_factory=list)

    def add(self, table: Mapping[str, Any], catalogue: Catalogue) -> None:
        """Add one rule; raises ScenarioError with a text that says what is wrong with it."""
        text = " ".join(f"{key}={_plain(value)}" for key, value in table.items())
        try:
            if any(key in _CONNECTION_ACTIONS for key in table):
                self.connection_rules.append(_connection_rule(text, table))
            else:
                self.rules.append(_rule(text, table, catalogue))
        except ScenarioError as error:
            raise ScenarioError(f"rule ({text}): {error}") from None

    def for_connection(self, number: int) -> Sequence[ConnectionRule]:
        return [rule for rule in self.connection_rules if rule.connection in (None, number)]

    def for_request(self, command_id: int, connection: int) -> Sequence[Rule]:
        """The rules for this request. Every rule counts it, whether or not another one applies, too."""
        return [rule for rule in self.rules if rule.meets(command_id, connection)]


def read_file(path: Path) -> Sequence[Mapping[str, Any]]:
    """The rules of a scenario file: the tables ``[[rule]]`` of TOML, or the list ``rule`` of JSON."""
    try:
        data = path.read_bytes()
    except OSError as error:
        raise ScenarioError(f"the scenario {path} cannot be read: {error.strerror}") from error
    try:
        text = data.decode("utf-8")
        content = json.loads(text) if path.suffix == ".json" else tomllib.loads(text)
    except (ValueError, RecursionError) as error:
        raise ScenarioError(
            f"the scenario {path} is not {'JSON' if path.suffix == '.json' else 'TOML'}: {error}"
        ) from error
    rules = content.get("rule") if isinstance(content, dict) else None
    if not isinstance(rules, list) or not all(isinstance(rule, dict) for rule in rules):
        raise ScenarioError(f"the scenario {path} has no rules; write them as [[rule]] tables")
    unknown = sorted(set(content) - {"rule"})
    if unknown:
        raise ScenarioError(
            f"the scenario {path} has an unknown entry {unknown[0]!r}; only [[rule]] tables are known"
        )
    return rules


def parse_text(text: str) -> Mapping[str, Any]:
    """A rule as words, ``command=11 request=2 delay=500``; a word without a value means true."""
    return {key: plain_value(value) for key, value in words_of(text).items()}


def words_of(text: str) -> dict[str, str]:
    """Words of ``key=value``, with the values as they stand."""
    parted = (word.partition("=") for word in text.split())
    return {key: value if equals else "true" for key, equals, value in parted}


def plain_value(text: str) -> object:
    """What a word means: true or false, a number, a list of such, or else the text that it is."""
    if text in ("true", "false"):
        return text == "true"
    if re.fullmatch(r"[0-9]{1,20}", text):
        return int(text)
    if re.fullmatch(r"0x[0-9A-Fa-f]{1,16}", text):
        return int(text, 16)
    return [plain_value(part) for part in text.split(",")] if "," in text else text


def _plain(value: object) -> str:
    if isinstance(value, list):
        return ",".join(str(one) for one in value)
    return str(value).lower() if isinstance(value, bool) else str(value)


def _rule(text: str, table: Mapping[str, Any], catalogue: Catalogue) -> Rule:
    known_words(table, (*_WHEN, *_BESIDE, *ACTIONS))
    for word, action in _BESIDE.items():
        if word in table and action not in table:
            raise ScenarioError(f"{word} says something of a {action}, and there is none")
    if "of" in table:
        table = {**table, "of": command_id(table["of"], catalogue)}
    actions = tuple(build(name, table[name], table) for name in ACTIONS if name in table)
    if not actions:
        raise ScenarioError(f"it does nothing; say one of {', '.join((*ACTIONS, *_CONNECTION_ACTIONS))}")
    first, last = _bounds(table)
    return Rule(
        text, command_id(table.get("command"), catalogue), _count(table, "connection"), first, last, actions
    )


def _connection_rule(text: str, table: Mapping[str, Any]) -> ConnectionRule:
    known_words(table, ("connection", *_CONNECTION_ACTIONS))
    if "silent" in table:
        only_true("silent", table["silent"])
    drop = table.get("drop_on_accept", "")
    if "drop_on_accept" in table and drop not in ("close", "reset"):
        raise ScenarioError(f'drop_on_accept is "close" or "reset", not {drop!r}')
    return ConnectionRule(
        text=text,
        connection=_count(table, "connection"),
        silent="silent" in table,
        drop_on_accept=drop,
        drop_after=_count(table, "drop_after"),
    )


def known_words(table: Mapping[str, Any], words: Sequence[str]) -> None:
    """Raises ScenarioError for a word that is none of these."""
    unknown = [key for key in table if key not in words]
    if unknown:
        known = f"the words are {', '.join(words)}" if words else "nothing follows"
        raise ScenarioError(f"{unknown[0]!r} is not known here; {known}")


def _bounds(table: Mapping[str, Any]) -> tuple[int, int | None]:
    nth = _count(table, "request")
    if nth is not None:
        if "from" in table or "to" in table:
            raise ScenarioError("say either request, or from and to")
        return nth, nth
    first, last = _count(table, "from") or 1, _count(table, "to")
    if last is not None and last < first:
        raise ScenarioError(f"to={last} comes before from={first}")
    return first, last


def _count(table: Mapping[str, Any], key: str) -> int | None:
    return whole_number(key, table[key], 1) if key in table else None


def command_id(value: object, catalogue: Catalogue) -> int | None:
    """The id of a command by its name or its id, also of one that the catalogue does not have."""
    if value is None:
        return None
    if isinstance(value, int) and not isinstance(value, bool) and 0 <= value <= 0xFFFF:
        return value
    try:
        return catalogue.named(str(value)).id
    except KeyError:
        hint = near(str(value), (one.name for one in catalogue.commands)) or "; give its name or its id"
        raise ScenarioError(f"there is no command {value!r}{hint}") from None


def near(name: str, known: Iterable[str]) -> str:
    """The hint for a mistyped name: empty if nothing is like it."""
    spelt = {one.lower(): one for one in known}
    found = get_close_matches(name.lower(), spelt, n=1)
    return f"; did you mean {spelt[found[0]]}?" if found else ""
