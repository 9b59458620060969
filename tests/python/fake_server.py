"""A machine of few words: one listening socket, and a function that plays the server's part."""

import contextlib
import os
import socket
import subprocess
import sys
import threading

import vorlinkit_python as vorlin
from vorlinkit.wire.frames import REQUEST_HEADER, response


def receive_exactly(connection, size):
    data = connection.recv(size, socket.MSG_WAITALL)
    if len(data) < size:
        raise ConnectionError("closed by the client")
    return data


def read_request(connection):
    """The next request as (command id, payload)."""
    fields = REQUEST_HEADER.unpack(receive_exactly(connection, REQUEST_HEADER.size))
    return fields[4], receive_exactly(connection, fields[-1])


def echo_behind(*frames):
    """A server that answers every request with these frames and the request's own payload."""

    def play(connection):
        while True:
            command_id, payload = read_request(connection)
            connection.sendall(b"".join(frames) + response(command_id, payload))

    return play


echo = echo_behind()


def silence(connection):
    """Takes what comes and answers nothing."""
    while connection.recv(65536):
        pass


@contextlib.contextmanager
def serving(play):
    """The port of a server that calls `play(connection)` in a thread for every client."""
    listener = socket.create_server(("127.0.0.1", 0))
    connections = []

    def converse(connection):
        with contextlib.suppress(OSError):
            play(connection)
        connection.close()

    def accept():
        with contextlib.suppress(OSError):
            while True:
                connection, _ = listener.accept()
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                connections.append(connection)
                threading.Thread(target=converse, args=(connection,), daemon=True).start()

    acceptor = threading.Thread(target=accept, daemon=True)
    acceptor.start()
    try:
        yield listener.getsockname()[1]
    finally:
        listener.shutdown(socket.SHUT_RDWR)  # wakes the accept, which would keep the port open
        listener.close()
        acceptor.join()
        for connection in connections:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)


def config_for(port, **settings):
    config = vorlin.SessionConfig()
    for name, value in {"host": "127.0.0.1", "port": port, "auto_reconnect": False, **settings}.items():
        setattr(config, name, value)
    return config


@contextlib.contextmanager
def connected_session(play, logger=None, **settings):
    with serving(play) as port:
        session = vorlin.VorlinSession(config=config_for(port, **settings), logger=logger)
        assert session.connect() == (True, "")
        try:
            yield session
        finally:
            session.disconnect()


PREAMBLE = """
import codecs, ctypes, gc, os, sys, threading
import vorlinkit_python as vorlin
from fake_server import config_for
"""


def run_script(script, *arguments, preamble=PREAMBLE):
    """The exit code, output and errors of a script in an interpreter of its own, with the modules of this one."""
    environment = dict(os.environ, PYTHONPATH=os.pathsep.join([os.path.dirname(__file__), *sys.path]))
    command = [sys.executable, "-c", preamble + script, *map(str, arguments)]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=20)
    return done.returncode, done.stdout, done.stderr
