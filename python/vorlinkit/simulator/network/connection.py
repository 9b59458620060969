"""One client's connection: reads requests, has them answered, and sends everything in one orderly stream."""

from __future__ import annotations

import asyncio
import socket
import struct
from collections.abc import Iterable, Sequence
from dataclasses import replace
from typing import Final, Protocol

from vorlinkit.wire import frames
from vorlinkit.wire.frames import MajorError, RequestFrame
from vorlinkit.wire.records import number
from vorlinkit.wire.render import to_json

from ..answer import Answer, Ending
from ..faults.scenario import ConnectionRule, Scenario
from ..state.machine import Machine, Reply
from ..state.presets import COMMAND_ERROR
from ..state.rights import needs_control
from ..state.subscriptions import Client
from .bursts import maker
from .events import EventLog
from .outgoing import Outgoing, blocks

LONGEST_VALUES: Final = 2000
"""Requests with longer payloads are told without their values."""
LONGEST_BACKLOG: Final = 256 * 1024
"""How many bytes may wait for a client before no more of its requests are read."""
LAST_PATIENCE: Final = 1.0
"""How many seconds a client that sends no more gets to take its last answers."""


class Surroundings(Protocol):
    """What a connection has of the server."""

    @property
    def machine(self) -> Machine: ...
    def take_control(self) -> None: ...
    def restart(self, seconds: float) -> None: ...


class ClientConnection:
    """Owned by the server, which runs it as one task; everything happens on the event loop.

    The request loop decides what is sent; one writer task sends it, so that frames never mix, also while an
    answer leaves byte by byte.
    """

    def __init__(
        self,
        nth: int,
        reader: asyncio.StreamReader,
        writer: asyncio.StreamWriter,
        server: Surroundings,
        scenario: Scenario,
        events: EventLog,
    ) -> None:
        self.client = Client(nth, self._deliver, self._lags)
        self._reader = reader
        self._writer = writer
        self._server = server
        self._machine = server.machine
        self._scenario = scenario
        self._events = events
        self._outbox: asyncio.Queue[Outgoing] = asyncio.Queue()
        self._backlog = 0
        self._held_back: list[bytes] | None = None
        self._sent = 0
        self._shut = False
        self._rules: Sequence[ConnectionRule] = scenario.for_connection(nth)
        self._silent = any(rule.silent for rule in self._rules)
        self._frozen = False
        self._drop_after = min(
            (rule.drop_after for rule in self._rules if rule.drop_after is not None), default=None
        )

    @property
    def number(self) -> int:
        return self.client.number

    async def run(self) -> None:
        """Serve the client until either side ends the connection."""
        peer = self._writer.get_extra_info("peername")
        self._events("accepted", connection=self.number, peer=f"{peer[0]}:{peer[1]}" if peer else "")
        # Back-pressure from the first byte: what was sent is with the operating system, in no buffer here.
        self._writer.transport.set_write_buffer_limits(0)
        drop = next((rule.drop_on_accept for rule in self._rules if rule.drop_on_accept), "")
        if drop:
            self._events("misbehaved", connection=self.number, rule=f"drop_on_accept={drop}")
            self._end("reset" if drop == "reset" else "close")
            self._events("closed", connection=self.number, by="simulator")
            return
        self._machine.enter(self.client)
        writing = asyncio.create_task(self._write_all())
        by = "simulator"
        try:
            while (frame := await self._read()) is not None:
                await self._serve(frame)
                await self._give_way()
        except asyncio.IncompleteReadError:
            by = "simulator" if self._writer.is_closing() else "client"
            await self._send_the_rest()
        except ConnectionError:
            by = "simulator" if self._writer.is_closing() else "client"
        finally:
            writing.cancel()
            self._machine.leave(self.client)
            self._writer.close()
            self._events("closed", connection=self.number, by=by)

    def send_unsolicited(self, made: Iterable[bytes], count: int) -> None:
        """Send notifications that no request asked for."""
        self._put(Outgoing((), frames=count, burst=made))

    def end(self, how: Ending) -> None:
        """End the connection behind what is waiting to be sent."""
        self._put(Outgoing((), ending=how))

    def cut(self) -> None:
        """The connection is gone at once, and with it whatever waits to be sent."""
        self._end("reset")

    async def flushed(self) -> None:
        """Returns when everything that was to be sent has been."""
        await self._outbox.join()

    async def _send_the_rest(self) -> None:
        """A client that has shut its sending side may still wait for its last answers."""
        try:
            await asyncio.wait_for(self.flushed(), LAST_PATIENCE)
        except TimeoutError:
            self._events("unflushed", connection=self.number)

    async def _give_way(self) -> None:
        """Let the others have their turn; a client that does not take its answers is not read any further."""
        await asyncio.sleep(0)
        if self._lags():
            await self.flushed()

    # --- receiving --------------------------------------------------------------------------------

    async def _read(self) -> RequestFrame | None:
        start = await self._reader.readexactly(frames.START_SIZE)
        size = frames.header_size(start[3])
        if start[:2] != frames.PROTOCOL or size is None:
            # Where the next frame begins cannot be known any more, so the connection ends.
            self._events("not-a-frame", connection=self.number, start=start.hex())
            if start[:2] == frames.PROTOCOL:
                refusal = frames.response(0, major_error=MajorError.UnsupportedHeaderType)
                self._put(Outgoing([refusal], frames=1))
                await self.flushed()
            return None
        header = start + await self._reader.readexactly(size - frames.START_SIZE)
        return frames.parse(header, await self._reader.readexactly(frames.announced_length(header)))

    async def _serve(self, frame: RequestFrame) -> None:
        rules = () if self._frozen else self._scenario.for_request(frame.command_id, self.number)
        command = self._machine.command_with_id(frame.command_id)
        can_refuse = command is not None and command.errors is not None
        carry_out = not self._frozen and not any(rule.leaves_undone(can_refuse) for rule in rules)
        has_control = self._machine.holder is self.client
        self._held_back = []
        reply = self._machine.answer(self.client, frame, carry_out)
        self._tell_request(frame, reply, has_control)
        answer = replace(reply.answer, make_notifications=maker(self._machine, self.client, reply))
        for rule in rules:
            self._events("misbehaved", connection=self.number, command=frame.command_id, rule=rule.text)
            answer = rule.apply(answer)
        self._machine.follow_up(self.client, reply)
        answer = replace(answer, behind=(*self._held_back, *answer.behind))
        self._held_back = None
        if answer.frozen:
            self._frozen = self._silent = True
        if answer.delay > 0:
            await asyncio.sleep(answer.delay)
        if answer.control_taken == "ahead":
            self._server.take_control()
        if answer.restart is not None:
            self._server.restart(answer.restart)
        self._send_answer(answer, frame.command_id)
        if answer.control_taken == "behind":
            self._server.take_control()

    def _tell_request(self, frame: RequestFrame, reply: Reply, has_control: bool) -> None:
        if not self._events.enabled:
            return
        command = reply.command
        values = ""
        if command is not None and command.request is not None and len(frame.payload) <= LONGEST_VALUES:
            values = to_json(command, command.request.fields, reply.request) if reply.request else ""
        self._events(
            "request",
            connection=self.number,
            command=frame.command_id,
            name=command.name if command is not None else "",
            values=values,
            client=frame.client_id,
            control=has_control,
            changes=command is not None and needs_control(command),
            carried_out=reply.carried_out,
            command_error=number(reply.response, COMMAND_ERROR),
        )

    # --- sending ----------------------------------------------------------------------------------

    def _deliver(self, frame: bytes) -> None:
        # What an own request causes comes behind its answer; everything else leaves at once.
        if self._held_back is not None:
            self._held_back.append(frame)
        else:
            self._put(Outgoing([frame], frames=1))

    def _lags(self) -> bool:
        return self._backlog > LONGEST_BACKLOG

    def _send_answer(self, answer: Answer, asked: int) -> None:
        response = answer.response()
        how, moment = answer.ending if answer.ending is not None else (None, None)
        unanswered = answer.silent or moment == "instead"
        if moment == "middle" and not unanswered:
            self._put(
                Outgoing([*answer.ahead, response[: len(response) // 2]], chunk=answer.chunk, ending=how)
            )
            return
        parts = () if unanswered else (*answer.ahead, *([response] * answer.copies))
        parts += answer.behind
        self._put(
            Outgoing(
                parts,
                frames=len(parts) + answer.burst_count,
                burst=answer.burst,
                chunk=answer.chunk,
                together=answer.together,
                ending=how,
                answered=None if unanswered else asked,
            )
        )
        for seconds, copies in answer.later:
            again = Outgoing([response] * copies, frames=copies)
            asyncio.get_running_loop().call_later(seconds, self._put, again)

    def _put(self, outgoing: Outgoing) -> None:
        if not self._silent:
            self._backlog += outgoing.size
            self._outbox.put_nowait(outgoing)

    async def _write_all(self) -> None:
        while True:
            outgoing = await self._outbox.get()
            try:
                await self._write(outgoing)
            except ConnectionError:
                pass
            finally:
                self._backlog -= outgoing.size
                self._outbox.task_done()
            await asyncio.sleep(0)  # a client that takes everything at once must not keep the others waiting

    async def _write(self, outgoing: Outgoing) -> None:
        if self._shut or self._writer.is_closing():
            return
        for at, block in enumerate(blocks(outgoing, self._frames_left())):
            if at > 0:
                await asyncio.sleep(0)
            self._writer.write(block)
            await self._writer.drain()
        self._sent += outgoing.frames
        if outgoing.answered is not None:
            self._events("answered", connection=self.number, command=outgoing.answered)
        elif outgoing.frames:
            self._events("notified", connection=self.number, count=outgoing.frames)
        if outgoing.ending is not None:
            self._end(outgoing.ending)
        elif self._drop_after is not None and self._sent >= self._drop_after:
            self._events("misbehaved", connection=self.number, rule=f"drop_after={self._drop_after}")
            self._end("close")

    def _frames_left(self) -> int | None:
        return None if self._drop_after is None else max(0, self._drop_after - self._sent)

    def _end(self, how: Ending) -> None:
        if how == "half-close":
            self._shut = True
            self._writer.write_eof()
        elif how == "reset":
            sock = self._writer.get_extra_info("socket")
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self._writer.transport.abort()
        else:
            self._writer.close()
        if how == "half-close":
            self._events("half-closed", connection=self.number)
