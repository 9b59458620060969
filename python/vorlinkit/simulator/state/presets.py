"""What was said from outside that the machine's answers shall hold, beside what its clients set."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

from vorlinkit.catalogue import Command, Message, VariantField
from vorlinkit.wire.records import Known, Record, Value

from .memory import shown_as

COMMAND_ERROR = "CommandError"


@dataclass
class _Preset:
    """Values that the answers about one object hold. An address that leaves fields out means all such objects."""

    command: Command
    address: Record
    values: Record

    def is_about(self, named: Known) -> bool:
        """Whether nothing that both name differs."""
        return all(named[key] == value for key, value in self.address.items() if key in named)

    def keep(self, which: Callable[[str, Value], bool]) -> None:
        """Drop all other values. That an object is refused stays so until that itself is set otherwise."""
        kept = {key: value for key, value in self.values.items() if key == COMMAND_ERROR or which(key, value)}
        self.values = kept


class Presets:
    """Values per command and object; of several that fit, the one said last counts."""

    def __init__(self) -> None:
        self._all: list[_Preset] = []

    def set(self, command: Command, address: Record, values: Record) -> None:
        """From now on these answers hold these values, beside those said before."""
        for preset in self._all:
            if preset.command is command and preset.address == address:
                values = {**preset.values, **values}
                self._all.remove(preset)
                break
        self._all.append(_Preset(command, address, values))

    def of(self, command: Command, request: Known) -> Record:
        """What the answer to this request shall hold."""
        found: Record = {}
        for preset in self._all:
            named = all(request.get(key) == value for key, value in preset.address.items())
            if preset.command is command and named:
                found.update(preset.values)
        return found

    def object_changed(self, name: str, address: Known, entries_only: bool = False) -> None:
        """The machine itself has changed an object, or entries of its lists: what was said of it is out of date."""
        for preset in self._all:
            if preset.command.name == name and preset.is_about(address):
                preset.keep(lambda key, value: entries_only and isinstance(value, list))

    def carried_out(self, command: Command, request: Record) -> None:
        """A client has set something: what answers of the same family were to say of it is out of date."""
        keys = {shown for key in request for shown in shown_as(key)}
        for preset in self._all:
            if preset.command.family == command.family and preset.is_about(request):
                preset.keep(lambda key, value: key not in keys)


def carries(message: Message | None, values: Known) -> bool:
    """Whether a message shows any of these values."""
    fields = message.fields if message is not None else ()
    return any((one.attribute if isinstance(one, VariantField) else one.key) in values for one in fields)
