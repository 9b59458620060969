#include "bindings.hpp"

#include <vorlinkit/SessionConfig.hpp>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

constexpr auto configDoc = R"(Everything that can be set about a session.

A session copies it when it is made; later changes have no effect on that session. Values are not checked
here: a host that cannot be found shows up in the result of `connect`.)";

using Milliseconds = std::chrono::milliseconds SessionConfig::*;

/// A duration as an int of milliseconds: read whole, written as a signed 32-bit number.
void defineMilliseconds(py::class_<SessionConfig>& binding, const char* name, Milliseconds member, const char* doc) {
  binding.def_property(
      name, [member](const SessionConfig& config) { return (config.*member).count(); },
      [member](SessionConfig& config, std::int32_t value) { config.*member = std::chrono::milliseconds(value); }, doc);
}

/// The binding library's own conversion would take bytes for a text.
void writeHost(SessionConfig& config, const py::str& host) {
  Py_ssize_t length = 0;
  const char* const text = PyUnicode_AsUTF8AndSize(host.ptr(), &length);
  if (text == nullptr) {
    PyErr_Clear();
    throw py::type_error("host: a lone surrogate is no part of a name or an address");
  }
  const std::string_view given(text, static_cast<std::size_t>(length));
  if (given.contains('\0')) throw py::value_error("host: a 0 byte is no part of a name or an address");
  config.host = given;
}

py::tuple readAccessKeys(const SessionConfig& config) {
  const auto& keys = config.access_keys;
  return py::make_tuple(keys[0], keys[1], keys[2], keys[3]);
}

/// Each element is stored as soon as it is converted; a tuple of another length changes nothing.
void writeAccessKeys(SessionConfig& config, const py::tuple& keys) {
  if (keys.size() != config.access_keys.size()) return;
  for (std::size_t index = 0; index < keys.size(); ++index)
    config.access_keys.at(index) = py::object(keys[index]).cast<std::uint8_t>();
}

} // namespace

void registerConfig(py::module_& module) {
  py::class_<SessionConfig> config(module, "SessionConfig", configDoc);
  config.def(py::init<>(), "A configuration with the defaults.");
  config.def_property(
      "host", [](const SessionConfig& given) { return given.host; }, &writeHost,
      "Name or numeric address of the machine's control server; ValueError for a 0 byte in it. Default "
      "\"localhost\".");
  config.def_readwrite("port", &SessionConfig::port, "TCP port of the control server, 0 to 65535. Default 50713.");
  defineMilliseconds(config, "connection_timeout", &SessionConfig::connection_timeout,
                     "Milliseconds one connect attempt may take, name lookup included. Default 3000.");
  defineMilliseconds(config, "request_timeout", &SessionConfig::request_timeout,
                     "Milliseconds the machine may take to answer one attempt of a request, counted from when the "
                     "request has been written; time spent waiting behind other requests is not part of it. "
                     "Default 15000.");
  config.def_readwrite("request_attempts", &SessionConfig::request_attempts,
                       "Attempts per request, the first included; 0 counts as 1. Each retry sends the request again: "
                       "leave it at 1 for commands that must not be carried out twice. Default 1.");
  defineMilliseconds(config, "reconnect_delay", &SessionConfig::reconnect_delay,
                     "Milliseconds to wait before each re-connect. Default 1000.");
  defineMilliseconds(
      config, "_reconnect_delay_max", &SessionConfig::reconnect_delay_max,
      "Milliseconds up to which the wait before re-connects doubles, less a random part of at most half; "
      "0: it stays `reconnect_delay`. Default 0.");
  config.def_readwrite("auto_reconnect", &SessionConfig::auto_reconnect,
                       "Re-connect after a failed connect or a lost connection, again and again, until `disconnect`. "
                       "Default True.");
  config.def_property("access_keys", &readAccessKeys, &writeAccessKeys,
                      "Four ints, 0 to 255, as a tuple; carried only, requests have a fixed key. A tuple of any "
                      "other length is ignored. RuntimeError for an element that is no such int; the elements before "
                      "it are then already stored. Default (90, 195, 30, 135).");
}

} // namespace vorlinkit::python
