#include "session/PyVorlinLogger.hpp"

#include "interpreter/CoreText.hpp"
#include "interpreter/InterpreterLock.hpp"
#include "interpreter/PythonCallback.hpp"

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

constexpr std::string_view callbackName = "IVorlinLogger.log";

} // namespace

std::string formattedRecord(std::string_view format, format_args args) {
  try {
    return formatting::vformat(format, args);
  } catch (const format_error& error) {
    return std::string("Format error: ") + error.what() + " | Raw: " + std::string(format);
  }
}

void PyVorlinLogger::log(LogLevel level, const std::source_location& location, std::thread::id /*thread*/,
                         std::chrono::system_clock::time_point /*time*/, std::string_view format, format_args args) {
  const auto message = formattedRecord(format, args);
  const std::string file = location.file_name();
  const InterpreterLock lock;
  if (!lock) return;
  try {
    callOverride(level, file, location.line(), message);
  } catch (const py::error_already_set& error) {
    reportCallbackException(callbackName, error);
  }
}

void PyVorlinLogger::callOverride(LogLevel level, const std::string& file, std::uint_least32_t line,
                                  const std::string& message) const {
  static const auto* const type = py::detail::get_type_info(typeid(IVorlinLogger));
  const auto self = py::detail::get_object_handle(static_cast<const IVorlinLogger*>(this), type);
  // An object that is being torn down is still registered, but must not be revived.
  if (!self || Py_REFCNT(self.ptr()) == 0) return;
  const auto owner = py::reinterpret_borrow<py::object>(self);
  // Asked like any attribute, so that one that is no Python function counts, too; without any, nothing is logged.
  const auto method = py::reinterpret_steal<py::object>(PyObject_GetAttrString(owner.ptr(), "log"));
  if (!method) {
    py::error_already_set missing;
    if (!missing.matches(PyExc_AttributeError)) throw missing;
    return;
  }
  const std::array<py::object, 4> arguments{LogLevels::of(level), decodeCoreText(file), py::int_(line),
                                            decodeCoreText(message)};
  callReported(callbackName, method, arguments.data(), arguments.size());
}

} // namespace vorlinkit::python
