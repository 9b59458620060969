"""VorlinKit for Python: talk to a sorting machine with one typed call per command.

    import vorlinkit

    with vorlinkit.connect("192.168.0.20") as machine:
        print(machine.get_machine_info().serial_number)

* ``vorlinkit.connect``, ``vorlinkit.Machine``: the client, and what it raises, all under ``VorlinError``.
* ``vorlinkit.aio``: the same with ``await``.
* ``vorlinkit.records``: the classes of what is passed and returned; ``to_dict``, ``to_json`` and ``rows`` turn them
  into plain data.
* ``vorlinkit.catalogue``: the commands of the protocol, what each does, and how sure each payload layout is.
* ``vorlinkit.wire``: frames and payloads as bytes, read and written by the layouts of the catalogue.
* ``vorlinkit.simulator``: a machine to talk to when none is at hand (``python3 -m vorlinkit.simulator``).

Nothing is loaded before it is used, and nothing needs more than the standard library. Where the extension module
``vorlinkit_python`` loads, the client runs on it; elsewhere on sockets, in pure Python.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Final

if TYPE_CHECKING:
    from . import aio as aio
    from . import catalogue as catalogue
    from . import records as records
    from .client.conversation import Lost as Lost
    from .client.conversation import Restored as Restored
    from .client.errors import Closed as Closed
    from .client.errors import CommandRefused as CommandRefused
    from .client.errors import ConnectError as ConnectError
    from .client.errors import ConnectionLost as ConnectionLost
    from .client.errors import ControlLost as ControlLost
    from .client.errors import DecodeError as DecodeError
    from .client.errors import EncodeError as EncodeError
    from .client.errors import MachineWarning as MachineWarning
    from .client.errors import NotConnected as NotConnected
    from .client.errors import ProtocolRefusal as ProtocolRefusal
    from .client.errors import RequestTimeout as RequestTimeout
    from .client.errors import VorlinError as VorlinError
    from .client.machine import Machine as Machine
    from .client.machine import connect as connect
    from .client.records import from_dict as from_dict
    from .client.records import from_json as from_json
    from .client.records import rows as rows
    from .client.records import to_dict as to_dict
    from .client.records import to_json as to_json
    from .client.subscription import Subscription as Subscription

    __version__: str

_HOMES: Final = {
    **dict.fromkeys(("connect", "Machine"), "client.machine"),
    **dict.fromkeys(("Lost", "Restored"), "client.conversation"),
    **dict.fromkeys(("from_dict", "from_json", "rows", "to_dict", "to_json"), "client.records"),
    **dict.fromkeys(
        (
            "Closed",
            "CommandRefused",
            "ConnectError",
            "ConnectionLost",
            "ControlLost",
            "DecodeError",
            "EncodeError",
            "MachineWarning",
            "NotConnected",
            "ProtocolRefusal",
            "RequestTimeout",
            "VorlinError",
        ),
        "client.errors",
    ),
    "Subscription": "client.subscription",
}
_MODULES: Final = ("aio", "catalogue", "records")

__all__ = ["__version__", *_HOMES, *_MODULES]


def __getattr__(name: str) -> Any:
    from importlib import import_module

    if name in _HOMES:
        found = getattr(import_module(f"{__name__}.{_HOMES[name]}"), name)
    elif name in _MODULES:
        found = import_module(f"{__name__}.{name}")
    elif name == "__version__":
        found = _version()
    else:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    globals()[name] = found
    return found


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})


def _version() -> str:
    """What the build wrote down, otherwise what the installed package says of itself."""
    from importlib import import_module, metadata

    try:
        written: str = import_module(f"{__name__}.version").VERSION
        return written
    except ImportError:
        pass
    try:
        return metadata.version("vorlinkit")
    except metadata.PackageNotFoundError:
        return "0+unknown"
