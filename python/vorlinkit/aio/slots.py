"""One request of a command at a time: the next one waits until it is answered, or known not to be."""

from __future__ import annotations

from asyncio import AbstractEventLoop, Future
from collections import deque


class _Slot:
    """`owners`: who has to leave before the next one gets it."""

    __slots__ = ("owners", "waiting")

    def __init__(self, owners: int) -> None:
        self.owners = owners
        self.waiting: deque[Future[None]] = deque()


class Slots:
    """Of one machine, by command; who waits gets its turn in order. On the event loop alone.

    None stands for the common slot, which has one owner and nobody who waits.
    """

    def __init__(self, loop: AbstractEventLoop) -> None:
        self._loop = loop
        self._taken: dict[int, _Slot | None] = {}

    def take_free(self, command_id: int) -> bool:
        """Takes a slot that nobody has, without waiting."""
        if command_id in self._taken:
            return False
        self._taken[command_id] = None
        return True

    async def enter(self, command_id: int) -> None:
        if self.take_free(command_id):
            return
        turn = self._loop.create_future()
        self._slot(command_id).waiting.append(turn)
        try:
            await turn
        except BaseException:
            if turn.done() and not turn.cancelled():  # it was its turn, and it does not want it any more
                self.leave(command_id)
            raise

    def keep(self, command_id: int) -> None:
        """It is left once more before the next one gets it: its request is still on its way."""
        self._slot(command_id).owners += 1

    def leave(self, command_id: int) -> None:
        slot = self._taken[command_id]
        if slot is not None:
            slot.owners -= 1
            if slot.owners:
                return
            while slot.waiting:
                turn = slot.waiting.popleft()
                if not turn.done():
                    slot.owners = 1
                    turn.set_result(None)
                    return
        del self._taken[command_id]

    def _slot(self, command_id: int) -> _Slot:
        slot = self._taken[command_id]
        if slot is None:
            slot = self._taken[command_id] = _Slot(owners=1)
        return slot
