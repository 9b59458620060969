"""The parts of the machine that keep state of their own; every other command is answered from its layout.

A component says what it knows of a response, by key. What a layout asks for beyond that is made up, and what
it does not ask for is left out, so a corrected layout needs no change here.
"""

from __future__ import annotations

from collections.abc import Sequence

from ..component import Component, Services
from .cameras import CamerasComponent
from .classes import ClassesComponent
from .control import ControlComponent
from .defects import DefectsComponent
from .devices import DevicesComponent
from .identity import IdentityComponent
from .modes import ModesComponent
from .sensitivities import SensitivitiesComponent
from .server import ServerComponent
from .statistics import StatisticsComponent
from .system import SystemObjectsComponent


def all_components(machine: Services) -> Sequence[Component]:
    """All components of a machine."""
    return (
        IdentityComponent(machine),
        ControlComponent(machine),
        ServerComponent(machine),
        DevicesComponent(machine),
        CamerasComponent(machine),
        ClassesComponent(machine),
        DefectsComponent(machine),
        SensitivitiesComponent(machine),
        ModesComponent(machine),
        StatisticsComponent(machine),
        SystemObjectsComponent(machine),
    )
