// Errors of the record binding, worded as those of the binding library, which words all others of the module.
#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <new>
#include <type_traits>

namespace vorlinkit::python {

struct Field;
struct RecordType;

/// TypeError of a class called with arguments; `args` does not hold the object itself.
void setConstructorError(const RecordType& type, PyObject* args, PyObject* kwargs);

/// TypeError of a class called with a name that no attribute has; says which ones come near it.
void setKeywordError(const RecordType& type, PyObject* name);

/// TypeError of a class called with a value that the attribute does not take; the TypeError that is set becomes its
/// cause.
void setKeywordValueError(const RecordType& type, const Field& field, PyObject* value);

/// TypeError of an attribute that does not take `value`.
void setAttributeError(const Field& field, PyObject* self, PyObject* value);

/// AttributeError of `del object.attribute`.
void setNoDeleterError(const Field& field, PyObject* self);

/// TypeError of a function that does not take its arguments. `doc` begins with its name and signature.
void setArgumentError(const char* doc, PyObject* const* args, Py_ssize_t count, PyObject* names);

/// Sets the Python error that belongs to the C++ exception being handled.
void translateException() noexcept;

/// Runs what may throw where only the interpreter can catch: null or -1 with the error set.
template <typename Function> auto guarded(Function&& function) noexcept -> decltype(function()) {
  using Result = decltype(function());
  try {
    return function();
  } catch (...) {
    translateException();
    if constexpr (std::is_pointer_v<Result>)
      return nullptr;
    else
      return -1;
  }
}

} // namespace vorlinkit::python
