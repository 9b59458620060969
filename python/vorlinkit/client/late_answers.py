"""Which commands may still be answered although nobody waits any more, and what shows that they will not be.

A response names its command and nothing else, so a late one would be taken for the answer to the next request of that
command. A machine answers in order: the answer to another command, asked later, says that the late one has come or
never will. That other command is the fence.
"""

from __future__ import annotations

from typing import Final

NO_OP: Final = 8
GET_HEADER_VERSIONS: Final = 9
FENCES: Final = (NO_OP, GET_HEADER_VERSIONS)
"""Harmless, and the same whenever they are asked: a late answer to one of them does no harm itself."""


class LateAnswers:
    """Of one connection; times are counted in doubts, not in seconds."""

    def __init__(self) -> None:
        self._since: dict[int, int] = {}
        self._doubts = 0

    def __bool__(self) -> bool:
        return any(command not in FENCES for command in self._since)

    def note(self, command_id: int) -> None:
        """A request of this command ended without its answer."""
        self._doubts += 1
        self._since.setdefault(command_id, self._doubts)

    def forget(self) -> None:
        """There is another connection; answers do not outlive theirs."""
        self._since.clear()

    def concern(self, command_id: int) -> bool:
        return command_id in self._since and command_id not in FENCES

    def fence_for(self, command_id: int) -> int | None:
        """A command whose answer, asked for now, closes the gap; None if each may itself be answered late."""
        doubt = self._since[command_id]
        usable = (fence for fence in FENCES if self._since.get(fence, doubt + 1) > doubt)
        return next(usable, None)

    def mark(self) -> int:
        """Where things stand when a fence is sent, for `answered`."""
        return self._doubts

    def answered(self, fence: int, mark: int) -> None:
        """The fence that was sent at `mark` got an answer, maybe a late one of its own."""
        limit = min(mark, self._since.get(fence, mark + 1) - 1)
        self._since = {command: doubt for command, doubt in self._since.items() if doubt > limit}
