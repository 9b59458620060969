"""The typed client beside what it is made of, and beside what somebody would write by hand.

Run by `benchmarks/run`. The far end answers every request with its own payload, so the typed call is SetServerTime: an
early time is also a response without a CommandError.
"""

import asyncio
import os
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import vorlinkit
import vorlinkit_python as vk
from bench_python import STREAM, Machine, ask_asyncio, least_of, repeated, report, seconds_of
from vorlinkit.client.raw import RawPlan

TIMESTAMP = 0x123456
SET_SERVER_TIME = vk.SET_SERVER_TIME_COMMAND_ID


def open_machine(port: int) -> vorlinkit.Machine:
    return vorlinkit.connect("127.0.0.1", port, client_id=False)


def typed_call(build: Path) -> None:
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(processors)})
    far = Machine(build)
    machine, session = open_machine(far.port), far.session()
    encode, decode = vk.encode_set_server_time_request, vk.decode_set_server_time_response

    def bare() -> int:
        request = vk.SetServerTimeRequest()
        request.timestamp = TIMESTAMP
        payload, error = session.send(SET_SERVER_TIME, encode(request))
        if payload is None:
            raise RuntimeError(error)
        return decode(payload).command_error

    def typed() -> int:
        return machine.set_server_time(TIMESTAMP).command_error

    assert typed() == bare() == 0
    ours, peer = least_of(150, repeated(typed, 100), repeated(bare, 100))
    report(
        "ratio",
        "Client: typed call, beside send with encoder and decoder",
        "us",
        ours * 1e6,
        peer * 1e6,
        1.2,
        1.1,
    )
    machine.close()
    session.disconnect()
    far.end()
    os.sched_setaffinity(0, processors)


def awaited_calls(build: Path) -> None:
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(processors)})
    far = Machine(build)
    loop = asyncio.new_event_loop()
    run = loop.run_until_complete

    async def connect() -> vorlinkit.aio.Machine:
        return await vorlinkit.aio.connect("127.0.0.1", far.port, client_id=False)

    machine = run(connect())
    reader, writer = run(asyncio.open_connection("127.0.0.1", far.port))
    payload = TIMESTAMP.to_bytes(8, "big")
    times = 100

    async def by_hand() -> None:
        for _ in range(times):
            answer = await ask_asyncio(reader, writer, SET_SERVER_TIME, payload)
            assert int.from_bytes(answer[:2], "big") == 0

    async def one_by_one() -> None:
        for _ in range(times):
            assert (await machine.set_server_time(TIMESTAMP)).command_error == 0

    async def at_once(count: int) -> None:
        await asyncio.gather(*(machine.set_server_time(TIMESTAMP) for _ in range(count)))

    ours, peer = least_of(
        100, lambda: seconds_of(lambda: run(one_by_one())), lambda: seconds_of(lambda: run(by_hand()))
    )
    name = "Client: awaited call, beside asyncio streams with struct"
    report("ratio", name, "us", ours / times * 1e6, peer / times * 1e6, 1.5, 1.1)
    many, few = least_of(
        15,
        lambda: seconds_of(lambda: run(at_once(1000))) / 1000,
        lambda: seconds_of(lambda: run(at_once(10))) / 10,
    )
    report(
        "ratio",
        "Client: each of 1,000 awaits at once, beside 10 at once",
        "us",
        many * 1e6,
        few * 1e6,
        1.2,
        1,
    )
    run(machine.close())
    writer.close()
    loop.close()
    far.end()
    os.sched_setaffinity(0, processors)


class StreamPlan(RawPlan):
    """Reads the far end's notifications as those of a motor, whose layout they fit."""

    __slots__ = ()

    def __init__(self) -> None:
        super().__init__(STREAM, "Stream", "change", unasked=True)
        self._decoders["notification"] = vk.decode_get_motor_position_notification


def notifications(build: Path) -> None:
    count = 50_000  # fewer than a link keeps for a client that is busy
    order = count.to_bytes(4, "big") + (10).to_bytes(4, "big")
    far = Machine(build)
    session, machine = far.session(), open_machine(far.port)
    done = threading.Event()
    seen = 0

    def on_record(record: Any) -> None:
        nonlocal seen
        seen += 1
        if record.actual_motor_position or seen == count:
            done.set()

    def bare(payload: bytes) -> None:
        on_record(vk.decode_get_motor_position_notification(payload))

    def through(ask: Callable[[], object]) -> float:
        nonlocal seen
        seen = 0
        done.clear()
        start = time.perf_counter()
        ask()
        assert done.wait(60) and seen == count
        return time.perf_counter() - start

    def iterate() -> float:
        start = time.perf_counter()
        machine.request(STREAM, order)
        for _, _record in zip(range(count), waiting, strict=False):
            pass
        return time.perf_counter() - start

    session.on_notification(STREAM, bare)
    plan = StreamPlan()
    subscribe = machine.subscribe._subscribe
    with subscribe(plan, (), on_record, count, None):
        ours, peer = least_of(
            15,
            lambda: through(lambda: machine.request(STREAM, order)),
            lambda: through(lambda: session.send(STREAM, order)),
        )
    name = "Client: notification to a handler, beside a bare callback with decoder"
    report("ratio", name, "ns", ours / count * 1e9, peer / count * 1e9, 1.3, 1)
    with subscribe(plan, (), None, count, None) as waiting:
        (ours,) = least_of(15, iterate)
    name = "Client: notification to an iterator, beside a bare callback with decoder"
    report("ratio", name, "ns", ours / count * 1e9, peer / count * 1e9, 1.3, 1)
    machine.close()
    session.disconnect()
    far.end()


def idle(build: Path) -> None:
    """Ten connected machines of each face, without traffic; shorter than the time of the idle check."""
    far = Machine(build)
    machines = [open_machine(far.port) for _ in range(10)]
    start = time.process_time()
    time.sleep(3)
    blocking = time.process_time() - start
    for machine in machines:
        machine.close()

    async def awaiting() -> float:
        connecting = [vorlinkit.aio.connect("127.0.0.1", far.port, client_id=False) for _ in range(10)]
        opened = [await one for one in connecting]
        start = time.process_time()
        await asyncio.sleep(3)
        used = time.process_time() - start
        for machine in opened:
            await machine.close()
        return used

    for face, used in (("", blocking), (" of asyncio", asyncio.run(awaiting()))):
        report("value", f"Client: processor time of 10 idle machines{face} in 3 s", "ms", used * 1e3, 0, 5, 1)
    far.end()


def imports() -> None:
    def seconds_to(code: str) -> Callable[[], float]:
        timed = f"import time; start = time.perf_counter(); {code}; print(time.perf_counter() - start)"
        words = [sys.executable, "-c", timed]
        return lambda: float(subprocess.run(words, capture_output=True, check=True).stdout)

    package, client, faces = least_of(
        15,
        seconds_to("import vorlinkit"),
        seconds_to("import vorlinkit; vorlinkit.connect"),
        seconds_to("import asyncio"),
    )
    report(
        "value",
        "Client: import of the package, beside import asyncio",
        "ms",
        package * 1e3,
        faces * 1e3,
        60,
        30,
    )
    report("value", "Client: the same with the client loaded", "ms", client * 1e3, faces * 1e3, 60, 30)


def main() -> None:
    build = Path(sys.argv[1])
    typed_call(build)
    awaited_calls(build)
    notifications(build)
    idle(build)
    imports()


if __name__ == "__main__":
    main()
