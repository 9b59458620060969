"""Exclusive control as users of threads hold it."""

from __future__ import annotations

from types import TracebackType
from typing import TYPE_CHECKING, Self

from . import plans
from .controlling import control_plan, give_back, take_control

if TYPE_CHECKING:
    from .keeper import Keeper


class ExclusiveControl:
    """A `with` block in which this program alone may change the machine. Made by `Machine.exclusive_control`."""

    def __init__(self, keeper: Keeper, user: str | None, force: bool, timeout: float) -> None:
        self._keeper = keeper
        self._plan, self._values = control_plan(user, force)
        self._timeout = timeout

    @property
    def lost(self) -> str:
        """Why control is gone, "" as long as it is there."""
        return self._keeper.talk.control.lost

    def __enter__(self) -> Self:
        keeper = self._keeper
        keeper.link.watch(self._plan.id)
        with keeper.slots[self._plan.id]:
            keeper.decide(take_control(keeper.talk, self._plan, self._values, self._timeout))
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        keeper, plan = self._keeper, plans.RELEASE_EXCLUSIVE_CONTROL
        with keeper.slots[plan.id]:
            failure = keeper.decide(give_back(keeper.talk, plan, self._timeout))
        if failure is not None and error is None:
            raise failure
