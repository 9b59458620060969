"""A link in pure Python, for every interpreter and system for which there is no compiled session."""

from __future__ import annotations

import os
import selectors
import signal
import sys
import threading
import time
import weakref
from collections import deque
from math import inf
from typing import Any, Final

from vorlinkit.wire import frames
from vorlinkit.wire.assembler import BadFrame, Frame, FrameAssembler, StreamFault

from .link import ENCODE, LOG, NOTIFICATION, OK, REPLY, STATE, STOPPED, TRANSPORT, Event, LinkOptions, Outcome
from .socket_events import SocketEvents, Waker, acquire
from .socket_requests import Request, Requests
from .socket_transport import ERR, INFO, WARN, Transport

_CLIENT_ID_AT: Final = 8  # in a request's header
_LONGEST_SLEEP: Final = 3600.0  # systems take no time without end
_NOT_CONNECTED: Final = Outcome(TRANSPORT, "Not connected", b"", 0, 0)
_STOPPED: Final = Outcome(STOPPED, "MessageFramer stopped", b"", 0, 0)
_TOO_LARGE: Final = Outcome(ENCODE, "Payload too large for 32-bit VORLIN length field", b"", 0, 0)
_DONE: Final = Outcome(OK, "", b"", 0, 0)

Ready = list[tuple[selectors.SelectorKey, int]]


class SocketLink:
    """The `Link` on sockets.

    One lock guards everything. One thread waits for the socket and for time; a caller who finds nothing in flight
    writes its own request, which spares a switch between threads. What is read is handled before the lock is given
    back, so an answer that was read before a request was written never meets that request.
    """

    def __init__(self, options: LinkOptions) -> None:
        self.events = SocketEvents()
        self._options = options
        self._level = options.log_level
        self._lock = threading.Lock()
        self._waker = Waker()
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._waker.receiver, selectors.EVENT_READ)
        self._transport = Transport(options, self._selector, self)
        self._requests = Requests()
        self._assembler = FrameAssembler()
        self._begun_before = False  # half a frame was there before the request in flight was written
        self._watched: set[int] = set()
        self._client_id = 0
        self._jobs: deque[tuple[object, bool]] = deque()  # connect or disconnect, and the token
        self._out: list[Event] = []
        self._released: list[threading.Lock] = []
        self._sleeps_until = 0.0
        self._asked = False  # since the thread last slept
        self._closing = self._closed = self._inherited = False
        arguments = (weakref.ref(self), self._selector, self._waker)
        name = f"vorlinkit {options.host}"
        self._thread = threading.Thread(target=_run, args=arguments, name=name, daemon=True)
        self._thread.start()
        _links.add(self)

    def __del__(self) -> None:
        if hasattr(self, "_waker") and not self._inherited:
            self._waker.wake()  # its thread finds that nobody holds it any more

    # --- any thread -------------------------------------------------------------------------------------

    def connect(self, token: object) -> None:
        self._post(token, True)

    def disconnect(self, token: object) -> None:
        self._post(token, False)

    def request(self, command_id: int, payload: bytes, timeout: float, connection: int) -> Outcome:
        done = threading.Lock()
        done.acquire()
        request = self._request(command_id, payload, timeout, done=done)
        if self._inherited:
            return _NOT_CONNECTED
        with self._lock:
            refusal = self._submit(request, connection)
        if refusal is not None:
            return refusal
        if not acquire(done, request.timeout):
            self._waker.wake()  # the thread may sleep longer; it decides whether time is up
            acquire(done, None)
        return request.outcome or _STOPPED

    def send(self, command_id: int, payload: bytes, timeout: float, connection: int, token: object) -> None:
        request = self._request(command_id, payload, timeout, token=token)
        if self._inherited:
            return self.events.put([(REPLY, token, _NOT_CONNECTED)])
        with self._lock:
            refusal = self._submit(request, connection)
            if refusal is not None:
                self.reply(token, refusal)
            if self._requests.deadline < self._sleeps_until:
                self._waker.wake()
            self._publish()

    def watch(self, command_id: int) -> None:
        self._watched.add(command_id)

    def set_log_level(self, level: int) -> None:
        self._level = level

    def client_id(self) -> int:
        return self._client_id

    def close(self) -> None:
        if self._inherited:
            return
        self._closing = True
        self._waker.wake()
        if threading.current_thread() is not self._thread:
            self._thread.join()

    # --- requests ---------------------------------------------------------------------------------------

    def _request(
        self,
        command_id: int,
        payload: bytes,
        timeout: float,
        token: object = None,
        done: threading.Lock | None = None,
    ) -> Request:
        frame = bytearray() if len(payload) > 0xFFFFFFFF else bytearray(frames.request(command_id, payload))
        return Request(command_id, frame, timeout or self._options.request_timeout, token, done)

    def _submit(self, request: Request, connection: int) -> Outcome | None:
        """Why the request is refused at once. With the lock."""
        if self._closed or self._closing:
            return _STOPPED
        if not self._transport.connection or connection not in (0, self._transport.connection):
            return _NOT_CONNECTED
        if not request.frame:
            return _TOO_LARGE
        try:
            self._requests.submit(request)
            self._drive()
        except BaseException:  # Ctrl-C in the midst of it: nobody knows how much has been written
            self._transport.break_off("Interrupted")
            raise
        return None

    def _drive(self) -> None:
        """Carries out what was decided about requests. With the lock."""
        while (request := self._requests.next()) is not None:
            self._asked = True
            self._begun_before = bool(self._assembler)
            request.frame[_CLIENT_ID_AT] = self._client_id
            if self._transport.write(request.frame):
                self._requests.written(time.monotonic())
        for finished in self._requests.take_finished():
            if finished.done is not None:
                self._released.append(finished.done)
            else:
                self.reply(finished.token, finished.outcome or _STOPPED)

    def _publish(self) -> None:
        if self._out:
            out, self._out = self._out, []
            self.events.put(out)

    # --- what the transport tells ------------------------------------------------------------------------

    def log(self, level: int, text: str) -> None:
        if level >= self._level:
            frame = sys._getframe(1)
            code = frame.f_code
            self._out.append(
                (LOG, level, code.co_filename, frame.f_lineno, code.co_qualname, text, time.time())
            )

    def reply(self, token: object, outcome: Outcome) -> None:
        self._out.append((REPLY, token, outcome))

    def on_state(self, connection: int, reason: str) -> None:
        self._out.append((STATE, connection, reason))

    def on_lost(self, text: str) -> None:
        self._client_id = 0
        self._requests.lost(TRANSPORT, text)
        self._assembler.reset()
        self._drive()
        self.log(WARN, "Connection lost, session state reset (clientId=0, pending requests failed)")

    def on_chunk(self, chunk: bytes) -> None:
        for found in self._assembler.cut(chunk):
            begun_before, self._begun_before = self._begun_before, False
            if isinstance(found, Frame):
                self._on_frame(found, begun_before)
            elif isinstance(found, BadFrame):
                self.log(ERR, f"Message decode error: {found.text}")
            else:
                self._on_fault(found)
        self._drive()

    def wake(self) -> None:
        self._waker.wake()

    def _on_frame(self, frame: Frame, begun_before: bool) -> None:
        command_id = frame.command_id
        if frame.message_type == frames.NOTIFICATION:
            if command_id in self._watched:
                self._out.append((NOTIFICATION, command_id, [frame.payload]))
            else:
                self.log(WARN, f"No handler for notification commandId={command_id}")
        elif frame.message_type == frames.RESPONSE:
            self._on_response(frame, begun_before)

    def _on_response(self, frame: Frame, begun_before: bool) -> None:
        reception = None if begun_before else self._requests.response(frame)
        if reception is None or not reception.expected:
            text = f"Received response for commandId={frame.command_id} but no active pending request found"
            return self.log(WARN, text)
        if reception.text:
            self.log(ERR if frame.major else WARN, reception.text)
        if reception.client_id is not None:
            self._client_id = reception.client_id
            self.log(INFO, f"Client ID assigned: {reception.client_id}")

    def _on_fault(self, fault: StreamFault) -> None:
        self.log(ERR, fault.log_text)
        self._requests.fault(fault.text)

    # --- the link's thread ------------------------------------------------------------------------------

    def _post(self, token: object, connect: bool) -> None:
        if self._inherited:
            return self.events.put([(REPLY, token, _NOT_CONNECTED)])
        with self._lock:
            if self._closed:
                self.reply(token, _STOPPED)
                return self._publish()
            self._jobs.append((token, connect))
        self._waker.wake()

    def turn(self, ready: Ready) -> float | None:
        """What has happened meanwhile; how long there is nothing to do, or None at the end."""
        with self._lock:
            try:
                self._handle(ready)
            except Exception as error:  # a fault of ours: nobody must wait for ever
                self.log(ERR, f"io_context run exception: {error}")
                self._closing = True
            if self._closing:
                self._end()
            self._publish()
            released, self._released = self._released, []
            now = time.monotonic()
            self._sleeps_until = min(self._transport.due(), self._requests.deadline)
            if (
                self._asked
            ):  # so that the next requests, too, find their deadline kept without waking the thread
                self._sleeps_until = min(self._sleeps_until, now + self._options.request_timeout)
            self._asked = False
        for waiting in released:
            waiting.release()
        return None if self._closed else self._sleeps_until - now

    def _handle(self, ready: Ready) -> None:
        now = time.monotonic()
        for key, mask in ready:
            if key.fileobj is self._waker.receiver:
                self._waker.drain()
            elif self._transport.ready(key.fileobj, mask):
                self._requests.written(now)
        while self._jobs:
            token, connect = self._jobs.popleft()
            if connect:
                self._transport.connect(token)
            else:
                self._transport.close()
                self.reply(token, _DONE)
        self._transport.look(now)
        if self._requests.deadline <= now:
            self._transport.read_arrived()
            if self._requests.deadline <= now:
                self._requests.timed_out()
        self._drive()

    def _end(self) -> None:
        self._closed = True
        self._requests.lost(STOPPED, _STOPPED.text)
        self._drive()
        self._transport.close()
        while self._jobs:
            self.reply(self._jobs.popleft()[0], _STOPPED)

    def inherit(self) -> None:
        """In a child process, which has no thread for it: calls fail, and it does not keep the connection open."""
        self._inherited = True
        self.events.start_anew()
        for key in list(self._selector.get_map().values()):
            key.fileobj.close()  # type: ignore[union-attr]


def _run(link: weakref.ref[SocketLink], selector: selectors.BaseSelector, waker: Waker) -> None:
    """The thread of a link; it ends with `close`, and when nobody holds the link any more."""
    if sys.platform != "win32":  # signals are the main thread's
        signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
    wait: float | None = 0.0
    while wait is not None:
        ready = selector.select(None if wait == inf else min(max(0.0, wait), _LONGEST_SLEEP))
        held = link()
        wait = None if held is None else held.turn(ready)
        del held
    for key in list(selector.get_map().values()):
        key.fileobj.close()  # type: ignore[union-attr]
    selector.close()
    waker.close()


_links: weakref.WeakSet[Any] = weakref.WeakSet()


def _after_fork() -> None:
    for link in list(_links):
        link.inherit()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_after_fork)
