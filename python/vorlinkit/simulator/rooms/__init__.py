"""The parts of the machine that keep state of their own; every other command is answered from its layout.

A room says what it knows of a response, by key. What a layout asks for beyond that is made up, and what it
does not ask for is left out, so a corrected layout needs no change here.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

from .classes import ClassesRoom
from .control import ControlRoom
from .defects import DefectsRoom
from .devices import DevicesRoom
from .identity import IdentityRoom
from .modes import ModesRoom
from .sensitivities import SensitivitiesRoom
from .server import ServerRoom
from .statistics import StatisticsRoom
from .system import SystemObjectsRoom

if TYPE_CHECKING:
    from ..machine import Machine, Room


def furnish(machine: Machine) -> Sequence[Room]:
    """All rooms of a machine."""
    return (
        IdentityRoom(machine),
        ControlRoom(machine),
        ServerRoom(machine),
        DevicesRoom(machine),
        ClassesRoom(machine),
        DefectsRoom(machine),
        SensitivitiesRoom(machine),
        ModesRoom(machine),
        StatisticsRoom(machine),
        SystemObjectsRoom(machine),
    )
