"""The extension module beside what somebody would write by hand: sockets with struct, asyncio, plain Python.

Run by `benchmarks/run`, which puts the built module on the path and turns the rows into a table. Needs nothing
but the standard library. Contenders take turns and each is judged by its fastest round.
"""

import asyncio
import json
import os
import socket
import struct
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path

import vorlinkit_python as vk

ECHO, STREAM = 1, 3  # what bench_machine answers, and what it follows by notifications
REQUEST = struct.Struct(">2sBBHHBx4sI")
RESPONSE = struct.Struct(">2sBBHHIII")
NOTIFICATION = struct.Struct(">2sBBHHI")
ACCESS_KEY = bytes([0x5A, 0xC3, 0x1E, 0x87])
MEBIBYTE = 1 << 20


def report(
    judged: str, name: str, unit: str, ours: float, peer: float, limit: float = 0, aim: float = 0
) -> None:
    print(judged, name, unit, f"{ours:.9g}", f"{peer:.9g}", limit, aim, sep="\t", flush=True)


def seconds_of(work: Callable[[], object]) -> float:
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def least_of(rounds: int, *contenders: Callable[[], float]) -> list[float]:
    least = [float("inf")] * len(contenders)
    for _ in range(rounds):
        least = [min(so_far, contender()) for so_far, contender in zip(least, contenders, strict=True)]
    return least


def repeated(work: Callable[[], object], times: int) -> Callable[[], float]:
    """One round: seconds per call of `work`."""

    def one_round() -> float:
        start = time.perf_counter()
        for _ in range(times):
            work()
        return (time.perf_counter() - start) / times

    return one_round


def compare(
    name: str, ours: Callable[[], object], peer: Callable[[], object], limit: float, aim: float
) -> None:
    """Two ways to the same result, in microseconds."""
    assert ours() == peer(), name
    times = max(1, int(0.002 / seconds_of(peer)))
    cost = least_of(40, repeated(ours, times), repeated(peer, times))
    report("ratio", name, "us", cost[0] * 1e6, cost[1] * 1e6, limit, aim)


# -- a machine to talk to ---------------------------------------------------------------------------------------


class Machine:
    """The server process of the benchmarks; it inherits the processor that this process is confined to."""

    def __init__(self, build: Path) -> None:
        program = build / "benchmarks" / "bench_machine"
        self._process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self._process.stdout is not None
        self.port = int(self._process.stdout.readline())

    def end(self) -> None:
        self._process.communicate()

    def connect(self) -> socket.socket:
        made = socket.create_connection(("127.0.0.1", self.port))
        made.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return made

    def session(self) -> "vk.VorlinSession":
        config = vk.SessionConfig()
        config.host = "127.0.0.1"
        config.port = self.port
        session = vk.VorlinSession(config)
        connected, error = session.connect()
        assert connected, error
        return session


def request_frame(command_id: int, payload: bytes) -> bytes:
    return REQUEST.pack(b"VR", 1, 1, 14, command_id, 0, ACCESS_KEY, len(payload)) + payload


def receive_exactly(connection: socket.socket, size: int) -> bytes:
    received = connection.recv(size)
    while len(received) < size:
        more = connection.recv(size - len(received))
        assert more
        received += more
    return received


def ask_blocking(connection: socket.socket, command_id: int, payload: bytes) -> bytes:
    connection.sendall(request_frame(command_id, payload))
    # The header and a small payload come in one piece.
    received = connection.recv(65536)
    while len(received) < RESPONSE.size:
        received += connection.recv(65536)
    protocol, _, kind, _, answered, major, _, size = RESPONSE.unpack_from(received)
    assert protocol == b"VR" and kind == 2 and answered == command_id and not major
    if len(received) < RESPONSE.size + size:
        received += receive_exactly(connection, RESPONSE.size + size - len(received))
    return received[RESPONSE.size :]


async def ask_asyncio(
    reader: asyncio.StreamReader, writer: asyncio.StreamWriter, command_id: int, payload: bytes
) -> bytes:
    writer.write(request_frame(command_id, payload))
    protocol, _, kind, _, answered, major, _, size = RESPONSE.unpack(await reader.readexactly(RESPONSE.size))
    assert protocol == b"VR" and kind == 2 and answered == command_id and not major
    return await reader.readexactly(size)


def round_trips(build: Path) -> None:
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(processors)})
    machine = Machine(build)
    session, connection = machine.session(), machine.connect()
    payload = bytes(16)
    times = 100
    loop = asyncio.new_event_loop()
    reader, writer = loop.run_until_complete(asyncio.open_connection("127.0.0.1", machine.port))

    async def ask_many() -> None:
        for _ in range(times):
            await ask_asyncio(reader, writer, ECHO, payload)

    assert session.send(ECHO, payload) == (payload, "") and ask_blocking(connection, ECHO, payload) == payload
    cost = least_of(
        100,
        repeated(lambda: session.send(ECHO, payload), times),
        repeated(lambda: ask_blocking(connection, ECHO, payload), times),
        lambda: seconds_of(lambda: loop.run_until_complete(ask_many())) / times,
    )
    ours, blocking, with_asyncio = (seconds * 1e6 for seconds in cost)
    report(
        "ratio", "Python: round trip, beside a blocking socket with struct", "us", ours, blocking, 2.0, 1.6
    )
    report("ratio", "Python: round trip, beside asyncio streams", "us", ours, with_asyncio, 0, 1)
    session.disconnect()
    connection.close()
    writer.close()
    loop.close()
    machine.end()
    os.sched_setaffinity(0, processors)


# -- notifications ----------------------------------------------------------------------------------------------


def receive_by_hand(
    connection: socket.socket, request: bytes, count: int, handlers: dict[int, Callable]
) -> None:
    """A socket loop with care: one recv for many frames, headers read where they lie."""
    connection.sendall(request)
    receive_exactly(connection, RESPONSE.size)
    header, unpack = NOTIFICATION.size, NOTIFICATION.unpack_from
    held = b""
    while count:
        held += connection.recv(65536)
        at, end = 0, len(held)
        while end - at >= header:
            protocol, _, kind, _, command_id, size = unpack(held, at)
            if end - at < header + size:
                break
            if protocol != b"VR" or kind != 3:
                raise ValueError("not a notification")
            handler = handlers.get(command_id)
            if handler is not None:
                handler(held[at + header : at + header + size])
            at += header + size
            count -= 1
        held = held[at:]


def notifications(build: Path) -> None:
    count = 100_000
    order = struct.pack(">II", count, 10)
    request = request_frame(STREAM, order)
    machine = Machine(build)
    session, connection = machine.session(), machine.connect()
    seen = 0
    done = threading.Event()

    def on_notification(payload: bytes) -> None:
        nonlocal seen
        seen += len(payload)
        if seen == 10 * count:
            done.set()

    def through_session() -> None:
        nonlocal seen
        seen = 0
        done.clear()
        answer, error = session.send(STREAM, order)
        assert answer == b"", error
        done.wait()

    def through_socket() -> None:
        nonlocal seen
        seen = 0
        done.clear()
        receive_by_hand(connection, request, count, {STREAM: on_notification})
        assert done.is_set()

    session.on_notification(STREAM, on_notification)
    cost = least_of(15, lambda: seconds_of(through_session), lambda: seconds_of(through_socket))
    ours, peer = (seconds * 1e9 / count for seconds in cost)
    report(
        "ratio", "Python: notification to a callback, beside a socket loop by hand", "ns", ours, peer, 1, 1
    )
    session.disconnect()
    connection.close()
    machine.end()


# -- decoding ---------------------------------------------------------------------------------------------------


def text_at(payload: bytes, at: int) -> tuple[str, int]:
    end = payload.index(0, at)
    return payload[at:end].decode("utf-8", "surrogateescape"), end + 1


def machine_info_by_hand(payload: bytes) -> tuple:
    interface_type, module_count = struct.unpack_from(">BB", payload)
    version, at = text_at(payload, 2)
    serial, at = text_at(payload, at)
    machine_type, _ = text_at(payload, at)
    return interface_type, module_count, version, serial, machine_type


def machine_info(payload: bytes) -> tuple:
    info = vk.decode_get_machine_info_response(payload)
    return (
        info.interface_type,
        info.module_count,
        info.interface_version,
        info.serial_number,
        info.machine_type,
    )


def motors_by_hand(payload: bytes) -> tuple:
    (error,) = struct.unpack_from(">H", payload)
    device, at = text_at(payload, 2)
    count = payload[at]
    at += 1
    total = 0
    for _ in range(count):
        number, motor_type = struct.unpack_from(">BB", payload, at)
        total += number + motor_type
        at += 2
    return error, device, count, total


def motors(payload: bytes) -> tuple:
    message = vk.decode_get_attached_motors_response(payload)
    total = 0
    for motor in message.list_of_motors:
        total += motor.attached_motor_number + motor.motor_type
    return message.command_error, message.automated_device_id, message.number_of_motors, total


MACHINE_INFO = b"\x03\x0c4.11.2\0S-2031-000417\0Belt sorter, two modules, dual view\0"
MOTORS = b"\0\0conveyor-in\0" + bytes([200]) + bytes(value for i in range(200) for value in (i, i % 3))
FRAME = b"\0\x07camera-1\0" + struct.pack(">QHHI", 1, 1024, 1024, MEBIBYTE) + bytes(MEBIBYTE)


def decoding() -> None:
    compare(
        "Python: decode SetServerTime response and read it, beside struct",
        lambda: vk.decode_set_server_time_response(b"\0\0").command_error,
        lambda: struct.unpack_from(">H", b"\0\0")[0],
        1,
        1,
    )
    compare(
        "Python: decode GetMachineInfo response and read every field, beside struct",
        lambda: machine_info(MACHINE_INFO),
        lambda: machine_info_by_hand(MACHINE_INFO),
        1,
        1,
    )
    compare(
        "Python: decode 200 motors and read every field, beside struct",
        lambda: motors(MOTORS),
        lambda: motors_by_hand(MOTORS),
        0.8,
        0.4,
    )


class Item:
    """What a byte of a frame is when each byte becomes an object, in plain Python."""

    __slots__ = ("frame_data_byte",)

    def __init__(self, frame_data_byte: int) -> None:
        self.frame_data_byte = frame_data_byte


def frames() -> None:
    start = len(FRAME) - MEBIBYTE
    decode = vk.decode_capture_frame_ex_notification

    def items() -> float:
        return seconds_of(lambda: sum(item.frame_data_byte for item in decode(FRAME).frame))

    def items_by_hand() -> float:
        return seconds_of(
            lambda: sum(item.frame_data_byte for item in [Item(byte) for byte in FRAME[start:]])
        )

    ours, peer = (seconds * 1e3 for seconds in least_of(5, items, items_by_hand))
    report(
        "value",
        "Python: 1 MiB frame as item objects, each read, beside slots classes",
        "ms",
        ours,
        peer,
        357,
        155,
    )
    assert decode(FRAME).frame_bytes == FRAME[start:]
    at_once = repeated(lambda: decode(FRAME).frame_bytes, 20)
    ours, peer = (seconds * 1e3 for seconds in least_of(20, at_once, repeated(lambda: FRAME[start:], 20)))
    report("value", "Python: 1 MiB frame at once, beside one copy", "ms", ours, peer, 2, 2)


# -- encoding and JSON ------------------------------------------------------------------------------------------


COMPONENTS = [f"ejector-{number}" for number in range(1000)]


def reset_usage_counts() -> "vk.ResetUsageCountsRequest":
    items = []
    for component in COMPONENTS:
        item = vk.ResetUsageCountsRequestComponentsItem()
        item.component_id = component
        items.append(item)
    request = vk.ResetUsageCountsRequest()
    request.usage_count_type = 2
    request.number_of_components = len(items)
    request.list_of_components = items
    return request


def encoding() -> None:
    time_request = vk.SetServerTimeRequest()
    time_request.timestamp = 0x0123456789ABCDEF
    compare(
        "Python: encode SetServerTime request, beside struct",
        lambda: vk.encode_set_server_time_request(time_request),
        lambda: struct.pack(">Q", 0x0123456789ABCDEF),
        1,
        1,
    )
    counts = reset_usage_counts()
    compare(
        "Python: encode ResetUsageCounts request, 1,000 components, beside struct",
        lambda: vk.encode_reset_usage_counts_request(counts),
        lambda: struct.pack(">BH", 2, 1000) + "\0".join(COMPONENTS).encode() + b"\0",
        1,
        1,
    )


def json_texts() -> None:
    info = vk.decode_get_machine_info_response(MACHINE_INFO)
    message = vk.decode_get_attached_motors_response(MOTORS)
    for name, ours in (
        ("GetMachineInfo response", lambda: vk.get_machine_info_response_to_json(info)),
        ("200 motors", lambda: vk.get_attached_motors_response_to_json(message)),
    ):
        # json.dumps is given the finished dictionary, which by hand would have to be made first.
        finished = json.loads(ours())
        compare(
            f"Python: JSON of {name}, beside json.dumps",
            ours,
            lambda finished=finished: json.dumps(finished),
            1,
            1,
        )


# -- large messages, beside the bare C API ----------------------------------------------------------------------


def large_messages(build: Path) -> None:
    """The peer is a module written by hand in C++ against the interpreter's C API, for just these messages."""
    sys.path.append(str(build / "benchmarks"))
    import bench_by_hand as by_hand

    def beside_c_api(name: str, ours: Callable[[], object], peer: Callable[[], object]) -> None:
        compare(f"Python: {name}, beside the C API by hand", ours, peer, 1.5, 0)

    motors = vk.decode_get_attached_motors_response(MOTORS)
    motors_by_hand = by_hand.motors("conveyor-in", MOTORS[-400:])
    beside_c_api(
        "JSON of 200 motors",
        lambda: vk.get_attached_motors_response_to_json(motors),
        lambda: by_hand.motors_to_json(motors_by_hand),
    )
    ids = range(60_000)
    commands = vk.decode_get_supported_commands_response(struct.pack(">H60000H", len(ids), *ids))
    commands_by_hand = by_hand.commands(ids)
    beside_c_api(
        "JSON of a list of 60,000 items",
        lambda: vk.get_supported_commands_response_to_json(commands),
        lambda: by_hand.commands_to_json(commands_by_hand),
    )
    pixels = bytes(range(256)) * (MEBIBYTE // 256)
    frame = vk.decode_capture_frame_ex_notification(FRAME[:-MEBIBYTE] + pixels)
    frame_by_hand = by_hand.capture(7, "camera-1", 1, 1024, 1024, pixels)
    beside_c_api(
        "JSON of a frame of 1 MiB",
        lambda: vk.capture_frame_ex_notification_to_json(frame),
        lambda: by_hand.capture_to_json(frame_by_hand),
    )

    counts = reset_usage_counts()
    counts_by_hand = by_hand.counts(2, "\0".join(COMPONENTS).encode() + b"\0")
    beside_c_api(
        "encode ResetUsageCounts request, 1,000 components",
        lambda: vk.encode_reset_usage_counts_request(counts),
        lambda: by_hand.encode_counts(counts_by_hand),
    )
    chunk = vk.SendUpdatePackageChunkRequest()
    chunk.package_id, chunk.chunk_number, chunk.chunk_size, chunk.chunk_bytes = "package", 1, MEBIBYTE, pixels
    chunk_by_hand = by_hand.chunk("package", 1, pixels)
    beside_c_api(
        "encode SendUpdatePackageChunk request of 1 MiB",
        lambda: vk.encode_send_update_package_chunk_request(chunk),
        lambda: by_hand.encode_chunk(chunk_by_hand),
    )


# -- the module itself ------------------------------------------------------------------------------------------


def module() -> None:
    def import_of(name: str) -> Callable[[], float]:
        code = f"import time; s = time.perf_counter(); import {name}; print(time.perf_counter() - s)"
        return lambda: float(
            subprocess.run([sys.executable, "-c", code], capture_output=True, check=True).stdout
        )

    ours, peer = (
        seconds * 1e3 for seconds in least_of(15, import_of("vorlinkit_python"), import_of("asyncio"))
    )
    report("value", "Python: import of the module, beside import asyncio", "ms", ours, peer, 40, 15)
    assert vk.__file__ is not None
    report("value", "Size of the stripped module", "MB", Path(vk.__file__).stat().st_size / 1e6, 0, 8, 5)


def main() -> None:
    build = Path(sys.argv[1])
    round_trips(build)
    notifications(build)
    decoding()
    frames()
    encoding()
    json_texts()
    large_messages(build)
    module()


if __name__ == "__main__":
    main()
