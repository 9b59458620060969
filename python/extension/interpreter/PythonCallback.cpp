#include "interpreter/PythonCallback.hpp"

#include "interpreter/CoreText.hpp"
#include "interpreter/ParkOnUnwind.hpp"

#include <cstdio>
#include <string>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// False when there is no sys.stderr or it cannot be written to.
bool writeToPythonStderr(const std::string& text) {
  auto* const stream = PySys_GetObject("stderr");
  if (!stream || stream == Py_None) return false;
  const auto kept = py::reinterpret_borrow<py::object>(stream);
  try {
    kept.attr("write")(py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace")));
    kept.attr("flush")();
    return true;
  } catch (const py::error_already_set&) {
    return false;
  }
}

/// The exception's type, text and place. Its own __str__ may raise, too.
std::string describe(const py::error_already_set& error) {
  try {
    return error.what();
  } catch (...) {
    return "(the exception cannot be rendered)";
  }
}

} // namespace

void reportCallbackException(std::string_view where, const py::error_already_set& error) noexcept {
  try {
    const auto text = "Exception in Python " + std::string(where) + " callback: " + describe(error) + "\n";
    if (writeToPythonStderr(text)) return;
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
  } catch (...) {
    // Nothing is left to report it with.
  }
}

void callReported(std::string_view where, py::handle callable, const py::object* arguments, std::size_t count) {
  static_assert(sizeof(py::object) == sizeof(PyObject*), "an array of objects is passed on as it lies");
  ParkOnUnwind guard;
  auto* const result =
      PyObject_Vectorcall(callable.ptr(), reinterpret_cast<PyObject* const*>(arguments), count, nullptr);
  guard.returned();
  if (result) {
    Py_DECREF(result);
    return;
  }
  const py::error_already_set error;
  reportCallbackException(where, error);
}

PythonCallback::~PythonCallback() {
  if (callable_) releaseAnywhere(callable_);
}

void PythonCallback::replace(const py::function& callable) {
  auto* const earlier = callable_;
  callable_ = callable.ptr();
  Py_INCREF(callable_);
  Py_XDECREF(earlier);
}

int PythonCallback::visit(visitproc visit, void* context) const { return callable_ ? visit(callable_, context) : 0; }

void PythonCallback::clear() { Py_CLEAR(callable_); }

} // namespace vorlinkit::python
