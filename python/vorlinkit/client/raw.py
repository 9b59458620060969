"""Commands by their number alone, with payloads that stay bytes."""

from __future__ import annotations

from typing import Any, Final

from . import plans
from .once import once
from .plan import Plan

LAST_ID: Final = 0xFFFF


@once
def raw_plan(command_id: int) -> Plan[bytes, bytes]:
    """Asks what is given, and returns what comes. Its effect is the catalogue's, "change" where that knows none."""
    known = _known(command_id)
    reads = known and all(plan.effect == "read" for plan in known)
    return RawPlan(command_id, _name(command_id), "read" if reads else "change")


@once
def raw_notifications(command_id: int) -> Plan[bytes, bytes]:
    """Listens, and asks for nothing."""
    return RawPlan(command_id, _name(command_id), "change", unasked=True)


def _known(command_id: int) -> list[Plan[Any, Any]]:
    if not 0 <= command_id <= LAST_ID:
        raise ValueError(f"a command's id is 0 to {LAST_ID}, not {command_id}")
    return [plan for plan in vars(plans).values() if isinstance(plan, Plan) and plan.id == command_id]


def _name(command_id: int) -> str:
    return next((plan.name for plan in _known(command_id)), f"command {command_id}")


class RawPlan(Plan[bytes, bytes]):
    """A plan whose records are the payloads themselves."""

    __slots__ = ()

    def __init__(self, id: int, name: str, effect: str, *, unasked: bool = False) -> None:
        super().__init__(id, name, name, effect, unasked=unasked)
        self._decoders.update(response=bytes, notification=bytes)
