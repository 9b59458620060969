"""Which commands are open to whom."""

from __future__ import annotations

from typing import Final

from vorlinkit.catalogue import Command

_OPEN_TO_ALL: Final = (
    "GetClientId",
    "NoOpCommand",
    "GetSupportedCommands",
    "IsCommandSupported",
    "GetHeaderVersions",
)
_AHEAD_OF_CONTROL: Final = (
    "GetClientId",
    "GetExclusiveControl",
    "ReleaseExclusiveControl",
    "ForcedGetExclusiveControl",
    "GetExclusiveControlWithUser",
    "ForcedGetExclusiveControlWithUser",
    "UiLogInOut",
    "StartRemoteAccess",
    "StopRemoteAccess",
)
"""What says who a client is, takes or gives back control, or lets support in, which must work without it."""


def is_open_to_all(command: Command | None) -> bool:
    """Whether a client that has not asked for an id may ask this."""
    return command is None or command.name in _OPEN_TO_ALL


def needs_control(command: Command) -> bool:
    """Whether the simulator asks for exclusive control under --strict-control: commands that change the
    machine.

    Which commands a real machine guards is the machine's own.
    """
    return command.effect == "change" and command.name not in _AHEAD_OF_CONTROL
