"""The typed client for asyncio: `connect`, and the `Machine` that it gives.

    async with vorlinkit.aio.connect("192.168.0.20") as machine:
        print((await machine.get_machine_info()).serial_number)

Requests go out in the order in which they were made, one at a time. Cancelling a task that waits for an answer frees it
at once; what was sent cannot be called back, and the machine may carry it out.
"""

from vorlinkit.client import backend

from .machine import Connecting, Machine, connect
from .subscription import Subscription

__all__ = ["Connecting", "Machine", "Subscription", "connect"]

backend.records()  # takes a moment in pure Python: better now than while an event loop runs
