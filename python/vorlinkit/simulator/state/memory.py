"""What setters leave behind for getters, for every command that no component of the machine answers.

``SetFeedRate`` names a feed configurer and a rate, ``GetFeedRate`` asks for a configurer and answers with a
rate: the setter's fields that the getter's request has too are the address, those that its response has are
the values. So the pairs are read off the layouts, and an overlay that corrects a layout corrects its pair.
"""

from __future__ import annotations

import re
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import Final

from vorlinkit.catalogue import Catalogue, Command, Field, ListField, ScalarField
from vorlinkit.wire.records import Known, Record, Value

_SETTER: Final = re.compile(
    r"^(Set|Force|Ignore|Enable|Disable|Write|Select|Modify|Update|Rename|StartStop|Request|Protect|Unprotect)(?=[A-Z])"
)
_GETTER: Final = re.compile(r"^(Get|Is|Read)(?=[A-Z])")
_GETTER_ENDING: Final = re.compile(r"(WithNotifications?)$")

_NAMING: Final = re.compile(r"(ID|Name|Division|Number|Index|UUID)$")

LISTS_THAT_CHANGE: Final[Mapping[str, Sequence[str]]] = {
    "SetFaultStatus": ("GetFaultsGeneral",),
}
"""Setters that change an entry of a list that clients subscribe to."""

PAIRS: Final[Mapping[str, Sequence[str]]] = {
    "IgnoreElectricalInputSignal": ("GetIgnoreElectricalInputValue",),
    "SetInputSignal": ("ReadSignal",),
    "SetModeAdjustmentParameter": ("GetModeAdjustmentParams",),
    "WriteParameterNodeDataProperty": ("GetParameterNodeProperty", "ParameterNodeDataChangeNotification"),
    "RequestProcessStateChange": ("GetProcessState",),
    "ForceUserFeedPreference": ("GetUserFeedPreference",),
}
"""Setters whose getter has another name than theirs."""


@dataclass(frozen=True)
class _Link:
    """How the request of a setter maps to the answer of a getter."""

    getter: str
    address: tuple[str, ...]
    values: Mapping[str, tuple[str, ...]]


class Memory:
    """Remembers what was set, per getter and address."""

    def __init__(self, catalogue: Catalogue) -> None:
        getters = _getters_by_topic(catalogue)
        self._links: dict[str, list[_Link]] = {}
        self._held: dict[tuple[str, tuple[tuple[str, Value], ...]], Record] = {}
        self._families: dict[tuple[str, tuple[tuple[str, Value], ...]], Record] = {}
        for command in catalogue.commands:
            links = [
                link
                for getter in _getters_of(command, getters)
                if (link := _link(command, getter)) is not None
            ]
            if links:
                self._links[command.name] = links
        self._addresses: dict[str, list[tuple[str, ...]]] = {}
        for link in (link for links in self._links.values() for link in links):
            known = self._addresses.setdefault(link.getter, [])
            if link.address not in known:
                known.append(link.address)

    def setters(self) -> Mapping[str, Sequence[str]]:
        """The getters that each setter is remembered for, by name."""
        return {name: [link.getter for link in links] for name, links in self._links.items()}

    def remember(self, command: Command, request: Record) -> list[tuple[str, Record]]:
        """Keep what a setter set. Returns the getters that now answer otherwise, with the address."""
        changed: list[tuple[str, Record]] = []
        for link in self._links.get(command.name, ()):
            address = {key: request[key] for key in link.address}
            held = self._held.setdefault((link.getter, tuple(address.items())), {})
            for key, targets in link.values.items():
                held.update(dict.fromkeys(targets, request[key]))
            changed.append((link.getter, address))
        self._remember_for_lists(command, request)
        for name in LISTS_THAT_CHANGE.get(command.name, ()):
            changed.append((name, {}))
        return changed

    def recall(self, command: Command, request: Known) -> Record:
        """What was set of the object that a getter asks about."""
        found: Record = {}
        for keys in self._addresses.get(command.name, ()):
            address = tuple((key, request[key]) for key in keys if key in request)
            found.update(self._held.get((command.name, address), {}))
        return found

    def forget_entries(self, command: Command, values: Known) -> None:
        """These lists of an answer have been said anew: what was set of their entries before is out of date."""
        items = [item for value in values.values() if isinstance(value, list) for item in value]
        for family, address in list(self._families):
            if family == command.family and any(address[-1][0] in item for item in items):
                del self._families[family, address]

    def _remember_for_lists(self, command: Command, request: Record) -> None:
        if command.request is None or not _is_setter(command):
            return
        keys = [field.key for field in _scalars(command.request.fields) if field.key != command.subscribes]
        address = tuple((key, request[key]) for key in keys if _NAMING.search(key))
        if address:
            shown = {name: request[key] for key in keys if not _NAMING.search(key) for name in shown_as(key)}
            self._families.setdefault((command.family, address), {}).update(shown)

    def overlay(self, command: Command, record: Record, scope: Known) -> None:
        """Show what was set in the lists of an answer, too: in the entries of the object that was addressed.

        ``scope`` is what is known around the entries: the request, and the entries that they stand in.
        """
        for value in record.values():
            if not isinstance(value, list):
                continue
            for item in value:
                within = {**scope, **item}
                for (family, address), held in self._families.items():
                    # The last part of the address is what names the object itself, not what holds it.
                    own = family == command.family and address[-1][0] in item
                    if own and all(within.get(key) == wanted for key, wanted in address):
                        item.update({key: new for key, new in held.items() if key in item})
                self.overlay(command, item, within)


def _getters_by_topic(catalogue: Catalogue) -> Mapping[str, Sequence[Command]]:
    topics: dict[str, list[Command]] = {}
    for command in catalogue.commands:
        if _GETTER.match(command.name):
            topic = _GETTER_ENDING.sub("", _GETTER.sub("", command.name))
            topics.setdefault(topic, []).append(command)
        topics.setdefault(command.name, []).append(command)
    return topics


def _getters_of(command: Command, getters: Mapping[str, Sequence[Command]]) -> list[Command]:
    if command.request is None:
        return []
    if command.name in PAIRS:
        return [
            getter for name in PAIRS[command.name] for getter in getters.get(name, ()) if getter.name == name
        ]
    if not _is_setter(command):
        return []
    topics = (_SETTER.sub("", command.name), command.name)
    found = [getter for topic in topics for getter in getters.get(topic, ()) if getter is not command]
    return [*found, command] if command.notification is not None else found


def _is_setter(command: Command) -> bool:
    return command.effect == "change" and _SETTER.match(command.name) is not None


def _link(setter: Command, getter: Command) -> _Link | None:
    assert setter.request is not None
    given = [field.key for field in _scalars(setter.request.fields) if field.key != setter.subscribes]
    asked = {field.key for field in _scalars(getter.request.fields)} if getter.request is not None else set()
    answered = {
        field.key: field.kind
        for message in (getter.response, getter.notification)
        if message is not None
        for field in _scalars(message.fields)
    }
    address = tuple(key for key in given if key in asked and key not in _values_of_itself(setter, getter))
    values = {key: targets for key in given if key not in address and (targets := _targets(key, answered))}
    return _Link(getter.name, address, values) if values else None


def _values_of_itself(setter: Command, getter: Command) -> set[str]:
    """A setter that is subscribed to, too: what does not name an object in its request are the values."""
    if setter is not getter or setter.request is None:
        return set()
    keys = [field.key for field in _scalars(setter.request.fields)]
    return {key for key in keys if not _NAMING.search(key)}


def _targets(key: str, answered: Mapping[str, str]) -> tuple[str, ...]:
    """The answer's fields that a setter's field shows in."""
    return tuple(name for name in shown_as(key) if name in answered)


def shown_as(key: str) -> tuple[str, ...]:
    """Under which keys an answer may show what a setter set: its own, and that of the value now in force."""
    base = re.sub(r"^(New|Set|Requested|Desired|Target)(?=[A-Z])", "", key)
    return tuple(dict.fromkeys((key, base, f"Current{base}", f"Actual{base}", f"Set{base}")))


def _scalars(fields: Sequence[Field]) -> list[ScalarField]:
    counts = {field.count for field in fields if isinstance(field, ListField)}
    return [field for field in fields if isinstance(field, ScalarField) and field.key not in counts]
