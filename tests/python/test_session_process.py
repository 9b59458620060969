"""A session and the process it lives in: signals, exit, fork, other interpreters."""

import contextlib
import os
import resource
import shutil
import signal
import socket
import subprocess
import sys
import sysconfig
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
import vorlinkit_python as vorlin
from fake_server import config_for, connected_session, echo, echo_behind, run_script, serving, silence
from vorlinkit.wire.frames import notification

chatter = echo_behind(*[notification(44, b"x" * 50)] * 5)
LATE = 0.3  # seconds until a wait is interrupted


@contextlib.contextmanager
def deaf():
    """The port of a listener whose backlog is full: it drops further attempts, so connect has to wait."""
    with socket.socket() as listener, socket.socket() as first, socket.socket() as second:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        for filler in (first, second):
            filler.setblocking(False)
            filler.connect_ex(listener.getsockname())
        yield listener.getsockname()[1]


# Ends in the middle of everything: notifications into a callback, a logger, requests from daemon threads
# and from threads that are never answered, a session that is waiting to re-connect, and one that is connecting.
BUSY_SCRIPT = """
class Logger(vorlin.IVorlinLogger):
    def log(self, level, file, line, message):
        seen.append(message)

def ask(session):
    while True:
        session.send(1)

seen = []
logger = Logger()
enough = threading.Event()
for port in sys.argv[1:4]:  # a busy server, a silent one, none
    session = vorlin.VorlinSession(config_for(int(port), auto_reconnect=True, reconnect_delay=1), logger)
    session.on_frame(lambda *frame: seen.append(frame))
    session.on_connection_state_changed(lambda *change: seen.append(change))
    session.on_notification(44, lambda payload: (seen.append(payload), len(seen) > 100 and enough.set()))
    session.connect()
    for _ in range(3):
        threading.Thread(target=ask, args=(session,), daemon=True).start()
connecting = vorlin.VorlinSession(config_for(int(sys.argv[4]), connection_timeout=60000))
threading.Thread(target=connecting.connect, daemon=True).start()
enough.wait()
sys.exit(7)
"""


@pytest.mark.parametrize("turn", range(5))
def test_a_script_exits_at_once_and_silently(turn):
    with serving(chatter) as busy, serving(silence) as silent, deaf() as nobody:
        with serving(echo) as lost:
            pass
        started = time.monotonic()
        assert run_script(BUSY_SCRIPT, busy, silent, lost, nobody) == (7, "", "")
    assert time.monotonic() - started < 10


STUCK_SCRIPT = """
session = vorlin.VorlinSession(config_for(int(sys.argv[1])))
stuck, never = threading.Event(), threading.Event()
session.on_notification(44, lambda payload: (stuck.set(), never.wait()))
session.connect()
threading.Thread(target=session.send, args=(1,), daemon=True).start()
stuck.wait()
sys.exit(7)
"""

MUTUAL_SCRIPT = """
sessions = [vorlin.VorlinSession(config_for(int(sys.argv[1]))) for _ in range(2)]
both, closed = threading.Barrier(2), threading.Semaphore(0)
for session, other in (sessions, sessions[::-1]):
    session.on_notification(44, lambda _, other=other: (both.wait(5), other.disconnect()))
    session.on_connection_state_changed(lambda connected, _: connected or closed.release())
    session.connect()
for session in sessions:
    threading.Thread(target=session.send, args=(1,), daemon=True).start()
for _ in sessions:
    closed.acquire()
for session in sessions:
    session.disconnect()
"""

FORK_SCRIPT = """
config = config_for(int(sys.argv[1]), auto_reconnect=True)
session = vorlin.VorlinSession(config)
session.on_frame(lambda *frame: None)
assert session.connect() == (True, "")

def ask():
    while session.send(1)[0] is not None:
        pass

for _ in range(3):
    threading.Thread(target=ask, daemon=True).start()

children = []
for how in ("drop", "keep", "use") * 5:
    child = os.fork()
    if child:
        children.append(child)
        continue
    if how == "drop":
        del session
        gc.collect()
    elif how == "use":
        session.on_frame(print)
        session.on_notification(1, print)
        assert session.send(1)[0] is None and session.connect()[0] is False and not session.is_connected()
        session.disconnect()
        own = vorlin.VorlinSession(config)
        own.on_frame(lambda *frame: None)
        assert own.connect() == (True, "")
        assert own.send(1, b"child") == (b"child", "")
    sys.exit(3)

codes = {os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) for child in children}
assert codes == {3}, codes
assert session.send(1, b"parent") == (b"parent", "")
"""


@pytest.mark.parametrize(
    ("play", "script", "code", "told"),
    [
        (
            chatter,
            STUCK_SCRIPT,
            7,
            "vorlinkit_python: a callback is still running at exit and is left behind\n",
        ),
        (echo_behind(notification(44)), MUTUAL_SCRIPT, 0, ""),
        (echo, FORK_SCRIPT, 0, ""),
    ],
    ids=[
        "in a callback that never returns",
        "where sessions disconnect each other",
        "behind forked children",
    ],
)
def test_a_script_ends_as_it_should(play, script, code, told):
    with serving(play) as port:
        assert run_script(script, port) == (code, "", told)


AFTER_EXIT_SCRIPT = """
import atexit, sys

def last():
    print(session.send(1), session.connect(), session.is_connected(), session.client_id())
    session.disconnect()
    session.on_frame(print)
    try:
        vorlin.VorlinSession(config)
    except RuntimeError as error:
        print(error)

atexit.register(last)  # registered before the module's own step, so it runs behind it
import vorlinkit_python as vorlin
from fake_server import config_for

config = config_for(int(sys.argv[1]))
session = vorlin.VorlinSession(config)
session.connect()
atexit.register(lambda: print(session.send(1, b"still here")))
"""


def test_sessions_work_in_exit_functions_and_fail_softly_behind_them():
    with serving(echo) as port:
        code, output, errors = run_script(AFTER_EXIT_SCRIPT, port, preamble="")
    assert (code, errors) == (0, "")
    before, after, refused = output.splitlines()
    assert before == "(b'still here', '')"
    assert after.startswith("(None, 'The session can no longer be used") and after.endswith(") False 0")
    assert refused == "The interpreter is exiting"


@contextlib.contextmanager
def interrupted():
    """A signal comes while the block waits; its handler's exception ends the wait soon."""

    def interrupt(*_):
        raise InterruptedError

    earlier = signal.signal(signal.SIGUSR1, interrupt)
    timer = threading.Timer(LATE, os.kill, (os.getpid(), signal.SIGUSR1))
    started = time.monotonic()
    timer.start()
    try:
        with pytest.raises(InterruptedError):
            yield
        assert time.monotonic() - started < LATE + 0.2
    finally:
        timer.cancel()
        signal.signal(signal.SIGUSR1, earlier)


@pytest.mark.parametrize("method", ["send", "connect"])
def test_a_signal_ends_a_wait(method):
    with serving(silence) if method == "send" else deaf() as port:
        session = vorlin.VorlinSession(config_for(port))
        assert method == "connect" or session.connect() == (True, "")
        with interrupted():
            session.send(1) if method == "send" else session.connect()
    # The request that was given up does no harm.
    session.disconnect()
    assert session.send(1) == (None, "Not connected")


def test_a_signal_ends_the_wait_for_a_close_which_goes_on():
    busy, done, closed = threading.Event(), threading.Event(), threading.Event()
    with connected_session(chatter) as session:
        session.on_notification(44, lambda _: (busy.set(), done.wait(5)))
        session.on_connection_state_changed(lambda connected, _: connected or closed.set())
        threading.Thread(target=session.send, args=(1,), daemon=True).start()
        assert busy.wait(5)
        with interrupted():
            session.disconnect()
        done.set()
        assert closed.wait(5)


def test_threads_that_wait_for_answers_use_no_time_and_disconnect_lets_them_go():
    with ThreadPoolExecutor(200) as threads, connected_session(silence) as session:
        started = threading.Barrier(201)
        answers = [threads.submit(lambda: (started.wait(), session.send(1))[1]) for _ in range(200)]
        started.wait()
        time.sleep(0.5)  # all of them have got to their waits, and stay there
        before = resource.getrusage(resource.RUSAGE_SELF).ru_nvcsw
        time.sleep(1)
        switches = resource.getrusage(resource.RUSAGE_SELF).ru_nvcsw - before
        session.disconnect()
        for answer in answers:
            payload, error = answer.result(timeout=5)
            assert payload is None and error
    assert switches < 200


SUBINTERPRETER_SCRIPT = """
import sys
import _xxsubinterpreters as interpreters

if sys.argv[1] == "first":
    import vorlinkit_python

code = '''
try:
    import vorlinkit_python
except ImportError as error:
    print(error)
'''
other = interpreters.create()
interpreters.run_string(other, code)
interpreters.destroy(other)

import vorlinkit_python
first = vorlinkit_python
del sys.modules["vorlinkit_python"]
import vorlinkit_python
assert vorlinkit_python is first
print(vorlinkit_python.VorlinSession(vorlinkit_python.SessionConfig()).send(1))
"""


@pytest.mark.parametrize("main_interpreter", ["first", "last"])
def test_a_sub_interpreter_is_refused(main_interpreter):
    told = "vorlinkit_python cannot be imported in a sub-interpreter\n(None, 'Not connected')\n"
    assert run_script(SUBINTERPRETER_SCRIPT, main_interpreter, preamble="") == (0, told, "")


def compiled(source, folder, *flags):
    compiler, made = shutil.which("c++"), folder / "made"
    if compiler is None:
        pytest.skip("no compiler")
    (folder / "source.cpp").write_text(source)
    subprocess.run([compiler, "source.cpp", "-o", made, *flags], cwd=folder, check=True)
    return made


EMBEDDER = """
#include <Python.h>

int main() {
  for (int turn = 0; turn < 2; ++turn) {
    Py_Initialize();
    PyRun_SimpleString(
        "try:\\n"
        "    import vorlinkit_python as vorlin\\n"
        "    print(vorlin.VorlinSession(vorlin.SessionConfig()).send(1), flush=True)\\n"
        "except ImportError as error:\\n"
        "    print(error, flush=True)\\n");
    if (Py_FinalizeEx() != 0) return 1;
  }
  return 0;
}
"""


def test_a_second_interpreter_of_a_process_is_refused(tmp_path):
    settings = sysconfig.get_config_vars()
    library = Path(settings["LIBDIR"], settings["LDLIBRARY"])
    if not library.exists():
        pytest.skip("no library to embed this Python with")
    flags = [flag for name in ("LINKFORSHARED", "LIBS", "SYSLIBS") for flag in settings[name].split()]
    embedder = compiled(EMBEDDER, tmp_path, "-I", settings["INCLUDEPY"], library, *flags)
    environment = dict(os.environ, PYTHONHOME=sys.base_prefix, PYTHONPATH=os.pathsep.join(sys.path))
    done = subprocess.run([embedder], env=environment, capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.splitlines() == [
        "(None, 'Not connected')",
        "vorlinkit_python cannot be imported once more in this process: the interpreter that had imported it has "
        "been finalised",
    ]


FAILING_NEW = """
#include <cstdlib>
#include <new>
extern "C" { int new_fails_after = -1; }
void* operator new(std::size_t size) {
  if (new_fails_after >= 0 && new_fails_after-- == 0) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
"""

NO_MEMORY_SCRIPT = """
fails_after = ctypes.c_int.in_dll(ctypes.CDLL(sys.argv[1]), "new_fails_after")
session, failed = vorlin.VorlinSession(vorlin.SessionConfig()), 0
for count in range(20):
    fails_after.value = count
    try:
        session.on_notification(100 + count, print)
    except MemoryError:
        failed += 1
    fails_after.value = -1
    gc.collect()
print(failed)
"""


def test_a_registration_without_memory_leaves_a_session_that_can_be_collected(tmp_path, monkeypatch):
    library = compiled(FAILING_NEW, tmp_path, "-shared", "-fPIC")
    monkeypatch.setenv("LD_PRELOAD", str(library))
    code, failed, errors = run_script(NO_MEMORY_SCRIPT, library)
    assert (code, errors) == (0, "")
    if int(failed) == 0:
        pytest.skip("the module was linked with a C++ library of its own")
