"""A client of bare bytes: a blocking socket that sees exactly what arrives."""

from __future__ import annotations

import socket
from dataclasses import dataclass

from vorlinkit.catalogue import Catalogue
from vorlinkit.wire import coder, frames
from vorlinkit.wire.records import Record, Value

PATIENCE = 10.0


@dataclass(frozen=True)
class Frame:
    """One frame from the simulator."""

    type: int
    command_id: int
    major_error: int
    minor_error: int
    payload: bytes


class Peer:
    """One connection to a simulator."""

    def __init__(self, host: str, port: int, catalogue: Catalogue) -> None:
        self.socket = socket.create_connection((host, port), timeout=PATIENCE)
        self.catalogue = catalogue
        self.client_id = 0
        self.notifications: list[tuple[str, Record]] = []

    def identify(self) -> int:
        self.client_id = self.ask("GetClientId")["ClientID"]  # type: ignore[assignment]
        return self.client_id

    def send(self, name: str, **values: Value) -> None:
        command = self.catalogue.named(name)
        payload = coder.encode(command.request.fields, values) if command.request is not None else b""
        self.socket.sendall(frames.request(command.id, payload, self.client_id))

    def exchange(self, name: str, **values: Value) -> Frame:
        """Send a request and return the response frame; notifications on the way are kept."""
        self.send(name, **values)
        return self.response()

    def ask(self, name: str, **values: Value) -> Record:
        """The decoded response to a request."""
        frame = self.exchange(name, **values)
        assert frame.major_error == 0, f"{name}: majorError {frame.major_error:#x}"
        response = self.catalogue.named(name).response
        assert response is not None
        record, left_over = coder.decode(response.fields, frame.payload)
        assert left_over == 0
        return record

    def error(self, name: str, **values: Value) -> Value:
        """The command error of the response to a request."""
        return self.ask(name, **values)["CommandError"]

    def response(self) -> Frame:
        while (frame := self.frame()).type == frames.NOTIFICATION:
            self._keep(frame)
        return frame

    def notification(self, name: str) -> Record:
        """The next notification of this command, kept or still to come; others are passed over."""
        while True:
            while self.notifications:
                kept, record = self.notifications.pop(0)
                if kept == name:
                    return record
            frame = self.frame()
            assert frame.type == frames.NOTIFICATION
            self._keep(frame)

    def frame(self) -> Frame:
        start = self.exactly(frames.START_SIZE)
        assert start[:2] == frames.PROTOCOL, start
        size = frames.header_size(start[3])
        assert size is not None
        header = start + self.exactly(size - frames.START_SIZE)
        payload = self.exactly(frames.announced_length(header))
        command_id = int.from_bytes(header[6:8], "big")
        if start[3] == frames.NOTIFICATION:
            return Frame(start[3], command_id, 0, 0, payload)
        major, minor = int.from_bytes(header[8:12], "big"), int.from_bytes(header[12:16], "big")
        return Frame(start[3], command_id, major, minor, payload)

    def exactly(self, count: int) -> bytes:
        received = b""
        while len(received) < count:
            more = self.socket.recv(count - len(received))
            if not more:
                raise EOFError(received)
            received += more
        return received

    def until_end(self) -> bytes:
        """Everything up to the end of the stream; ConnectionResetError if the peer reset it."""
        received = b""
        while more := self.socket.recv(65536):
            received += more
        return received

    def _keep(self, frame: Frame) -> None:
        command = self.catalogue.with_id(frame.command_id)[0]
        assert command.notification is not None
        record, left_over = coder.decode(command.notification.fields, frame.payload)
        assert left_over == 0
        self.notifications.append((command.name, record))
