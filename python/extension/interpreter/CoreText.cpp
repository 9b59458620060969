#include "interpreter/CoreText.hpp"

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// The ANSI code page's codec exists only in interpreters on the platform that has one.
const char* codecOfThisInterpreter() { return PyCodec_KnownEncoding("mbcs") ? "mbcs" : "utf-8"; }

} // namespace

py::str decodeCoreText(std::string_view text) {
  // Looked up while the module is imported, when no second thread can wait here with the interpreter lock.
  static const char* const codec = codecOfThisInterpreter();
  auto* const decoded = PyUnicode_Decode(text.data(), static_cast<Py_ssize_t>(text.size()), codec, "replace");
  if (!decoded) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(decoded);
}

} // namespace vorlinkit::python
