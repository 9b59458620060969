// A Python callable that the core may call from its I/O thread.
#pragma once

#include "interpreter/InterpreterLock.hpp"

#include <pybind11/pybind11.h>

#include <array>
#include <string_view>

namespace vorlinkit::python {

/// Writes "Exception in Python NAME callback: ", the exception's text and an end of line to sys.stderr,
/// or to the process's standard error where the interpreter has none. Interpreter lock held.
void reportCallbackException(std::string_view where, const pybind11::error_already_set& error) noexcept;

/// Calls a Python callable and reports the exception it raises; the return value is discarded.
/// Interpreter lock held.
void callReported(std::string_view where, pybind11::handle callable, const pybind11::object* arguments,
                  std::size_t count);

/// One callback slot: holds the one strong reference to the callable that is registered. The session and
/// the core's handlers share it, so that copies of a handler touch no reference count. A later
/// registration changes the callable in place; the core then needs not be told.
///
/// `callable_` belongs to whoever holds the interpreter lock.
class PythonCallback {
public:
  /// `name` is the method that registers it, a literal. Interpreter lock held.
  PythonCallback(const char* name, const pybind11::function& callable) : name_(name), callable_(callable.ptr()) {
    Py_INCREF(callable_);
  }
  /// On any thread. Takes the lock to release the callable; an interpreter on its way out keeps it.
  ~PythonCallback();
  PythonCallback(const PythonCallback&) = delete;
  PythonCallback& operator=(const PythonCallback&) = delete;

  /// The earlier callable is released at once. Interpreter lock held.
  void replace(const pybind11::function& callable);
  /// For the garbage collector. Interpreter lock held.
  int visit(visitproc visit, void* context) const;
  void clear();

  /// Any thread, mostly the I/O thread. `makeArguments` runs with the interpreter lock held and returns an
  /// array of objects.
  template <typename MakeArguments> void call(MakeArguments&& makeArguments) const {
    const InterpreterLock lock;
    if (!lock || !callable_) return;
    const auto arguments = makeArguments();
    // The callable may replace or clear itself while it runs.
    const auto callable = pybind11::reinterpret_borrow<pybind11::object>(callable_);
    callReported(name_, callable, arguments.data(), arguments.size());
  }

private:
  const char* name_;
  PyObject* callable_;
};

} // namespace vorlinkit::python
