#include "bindings.hpp"
#include "session/PyVorlinLogger.hpp"

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

constexpr auto logLevelDoc = "Importance of a log record, ascending. `off` as a threshold silences everything.";

constexpr auto loggerDoc = R"(Receives the log records of a session.

Derive from it and define a method

    def log(self, level: LogLevel, file: str, line: int, message: str) -> None

`file` and `line` name the place in the library that logs. The method is called for every record at or
above the threshold, which is `LogLevel.info` at first, mostly on the session's own I/O thread: be quick,
and call neither `connect` nor `send` of that session. What it raises is written to sys.stderr. A class
without such a method logs nothing.

Keep a reference to the logger for as long as you want records: the session alone does not keep the
Python object alive.)";

} // namespace

void registerLogger(py::module_& module) {
  const auto levels = py::enum_<LogLevel>(module, "LogLevel", logLevelDoc)
                          .value("trace", LogLevel::trace, "every step")
                          .value("debug", LogLevel::debug, "for debugging")
                          .value("info", LogLevel::info, "connecting and connected")
                          .value("warn", LogLevel::warn, "a lost connection, a retry, bytes that were skipped")
                          .value("err", LogLevel::err, "a failed connection, a callback that raised")
                          .value("critical", LogLevel::critical, "nothing more can be done")
                          .value("off", LogLevel::off, "as a threshold: no records at all")
                          .export_values();
  LogLevels::fill(levels);

  py::class_<IVorlinLogger, PyVorlinLogger, std::shared_ptr<IVorlinLogger>>(module, "IVorlinLogger", loggerDoc)
      .def(py::init<>())
      .def("set_log_level", &IVorlinLogger::set_log_level, py::arg("level"),
           "Set the threshold: records below `level` are not passed to `log`. Any thread, at any time.")
      .def("get_log_level", &IVorlinLogger::get_log_level, "The threshold; `LogLevel.info` unless set otherwise.");
}

} // namespace vorlinkit::python
