#include "bindings.hpp"
#include "session/PySession.hpp"

#include <pybind11/stl.h>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

constexpr auto sessionDoc = R"(A session with a machine's control server: one connection, one I/O thread.

Any thread may call it; calls that wait let other Python threads run. Nothing here raises for what goes
wrong on the line: `connect` and `send` return a pair of a value and an error text, which is empty on
success. Callbacks run on the session's I/O thread, one at a time: be quick, and call neither `connect`
nor `send` of the same session there (they return an error text at once). What a callback raises is
written to sys.stderr, and the session goes on.

Dropping the last reference closes the connection. A session that is still open when the interpreter
exits is closed by it. After a fork, the child cannot use the session; make a new one there.)";

constexpr auto initDoc = R"(Make a session; it does not connect yet.

`config` is copied. `logger` receives the session's log records for as long as you keep a reference to it.
RuntimeError if the I/O thread cannot be started.)";

constexpr auto connectDoc = R"(Connect to the machine and wait for the outcome.

Returns (True, "") or (False, error text) within `connection_timeout`. A connection, or an attempt, that is
under way is given up first. With `auto_reconnect`, a failed attempt is repeated in the background.
Ctrl-C ends the wait.)";

constexpr auto disconnectDoc = R"(Close the connection, end re-connecting, and wait until both are done.

Requests that wait fail. From a callback of any session it only starts the close. Ctrl-C ends the wait; the
close goes on by itself.)";

constexpr auto stateDoc = R"(Have `callback(connected: bool, reason: str)` called on every change of the connection.

`reason` is empty when connected, and says why when not. Runs on the I/O thread. Replaces an earlier
callback. TypeError if `callback` cannot be called.)";

constexpr auto sendDoc = R"(Send a request and wait for its response.

`commandId` is the command's number, 0 to 65535; `payload` the encoded request, as bytes, or None for a
command without one. TypeError for anything else, before anything is sent.

Returns (response payload, "") or (None, error text): not connected, connection lost, no answer within
`request_attempts` times `request_timeout`, or the machine refused the request. A command error is not a
failure here: it is part of the response payload (its `command_error`). Requests of all threads are sent
strictly one at a time, in order. Ctrl-C ends the wait; the request may have reached the machine.

A late answer after a time-out is taken by the next request of the same command: the protocol numbers
commands, not requests.)";

constexpr auto notificationDoc = R"(Have `callback(payload: bytes)` called for every notification of one command.

`payload` is what follows the message header. Runs on the I/O thread. Replaces an earlier callback for the
same `commandId` (0 to 65535). Notifications without a callback are dropped. TypeError if `callback` cannot
be called.)";

constexpr auto frameDoc =
    R"(Have `callback(direction: FrameDirection, frame: bytes)` called for every frame sent and received.

`frame` is the whole frame, header included: before it is written (`Tx`), or as soon as it is complete, not
yet decoded (`Rx`). Runs on the I/O thread. Replaces an earlier callback. TypeError if `callback` cannot be
called.)";

const py::detail::type_info* sessionType = nullptr;

/// The session inside a Python object; null before __init__ has made it.
PySession* sessionOf(PyObject* self) {
  if (!sessionType) return nullptr;
  const auto slot = reinterpret_cast<py::detail::instance*>(self)->get_value_and_holder(sessionType, false);
  if (!slot.inst || !slot.holder_constructed()) return nullptr;
  return slot.value_ptr<PySession>();
}

int traverse(PyObject* self, visitproc visit, void* context) {
  if (const int stop = visit(reinterpret_cast<PyObject*>(Py_TYPE(self)), context)) return stop;
  const auto* const session = sessionOf(self);
  return session ? session->visitCallbacks(visit, context) : 0;
}

int clear(PyObject* self) {
  if (auto* const session = sessionOf(self)) session->clearCallbacks();
  return 0;
}

/// Ending a session gives the interpreter lock up, so the collector must not find the object any more.
void deallocate(PyObject* self) {
  PyObject_GC_UnTrack(self);
  py::detail::pybind11_object_dealloc(self);
}

void takePartInGarbageCollection(PyHeapTypeObject* heapType) {
  auto& type = heapType->ht_type;
  type.tp_flags |= Py_TPFLAGS_HAVE_GC;
  type.tp_traverse = &traverse;
  type.tp_clear = &clear;
  type.tp_dealloc = &deallocate;
}

} // namespace

void registerSession(py::module_& module) {
  py::class_<PySession, std::shared_ptr<PySession>>(module, "VorlinSession", sessionDoc,
                                                    py::custom_type_setup(&takePartInGarbageCollection))
      .def(py::init<const SessionConfig&, std::shared_ptr<IVorlinLogger>>(), py::arg("config"),
           py::arg("logger") = py::none(), initDoc)
      .def("connect", &PySession::connect, connectDoc)
      .def("disconnect", &PySession::disconnect, disconnectDoc)
      .def("is_connected", &PySession::isConnected, "Whether the connection is up.")
      .def("client_id", &PySession::clientId,
           "The id the machine gave this connection, 1 to 255, learned from the response to command 1; 0 while "
           "unknown and after a connection loss.")
      .def("on_connection_state_changed", &PySession::onConnectionStateChanged, py::arg("callback"), stateDoc)
      .def("send", &PySession::send, py::arg("commandId"), py::arg("payload") = py::none(), sendDoc)
      .def("on_notification", &PySession::onNotification, py::arg("commandId"), py::arg("callback"), notificationDoc)
      .def("on_frame", &PySession::onFrame, py::arg("callback"), frameDoc)
      .def("_attach", &PySession::attach, py::arg("queue"),
           "Have the session's events put into a queue, before `connect`.")
      .def("_request", &PySession::request, py::arg("command_id"), py::arg("payload"), py::arg("timeout_ms"),
           py::arg("connection"),
           "Send on the connection of that number (0: on any) and wait: (code, text, payload, majorError, minorError).")
      .def("_send", &PySession::sendForReply, py::arg("command_id"), py::arg("payload"), py::arg("timeout_ms"),
           py::arg("connection"), py::arg("token"), "The same without waiting: the reply with `token` is an event.")
      .def("_start_connect", &PySession::startConnect, py::arg("token"), "Connect; the reply is an event.")
      .def("_start_disconnect", &PySession::startDisconnect, py::arg("token"), "Disconnect; the reply is an event.")
      .def("_watch", &PySession::watch, py::arg("command_id"), "Have notifications of a command put into the queue.")
      .def("_close", &PySession::close, "End the session; whoever waits is answered with code 6.");
  sessionType = py::detail::get_type_info(typeid(PySession));
}

} // namespace vorlinkit::python
