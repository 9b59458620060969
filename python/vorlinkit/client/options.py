"""What can be said when connecting, checked, and sorted by who needs it."""

from __future__ import annotations

from typing import Any, Final

from .conversation import LateAnswerPolicy, Options
from .link import LinkOptions

LONGEST: Final = 1_000_000.0
"""Seconds; what is longer is taken for this, which a link can still count in milliseconds."""
POLICIES: Final = ("fence", "reconnect", "ignore")


def patience(seconds: float) -> float:
    """A time-out that a link can take."""
    if not seconds > 0:
        raise ValueError(f"a time-out is a number of seconds above 0, not {seconds!r}")
    return min(seconds, LONGEST)


def options_of(
    host: str,
    port: int,
    timeout: float,
    connect_timeout: float,
    client_id: bool,
    reconnect: bool,
    reconnect_delay: float,
    reconnect_delay_max: float,
    retry_reads: int,
    late_answers: LateAnswerPolicy,
    idle_check: float,
) -> tuple[Options, LinkOptions]:
    """Raises ValueError."""
    if not host:
        raise ValueError("the machine's name or address is missing")
    if late_answers not in POLICIES:
        raise ValueError(f"late_answers is one of {', '.join(POLICIES)}, not {late_answers!r}")
    at_least_0: dict[str, Any] = {"retry_reads": retry_reads, "idle_check": idle_check}
    at_least_0 |= {"reconnect_delay": reconnect_delay, "reconnect_delay_max": reconnect_delay_max}
    for name, value in at_least_0.items():
        if not value >= 0:
            raise ValueError(f"{name} is 0 or more, not {value!r}")
    timeout = patience(timeout)
    return (
        Options(host, port, timeout, client_id, reconnect, retry_reads, late_answers, idle_check),
        LinkOptions(
            host,
            port,
            connect_timeout=patience(connect_timeout),
            request_timeout=timeout,
            reconnect_delay=reconnect_delay,
            reconnect_delay_max=max(reconnect_delay, reconnect_delay_max),
            reconnect=reconnect,
        ),
    )
