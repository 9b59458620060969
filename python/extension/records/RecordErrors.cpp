#include "records/RecordErrors.hpp"

#include "records/RecordType.hpp"
#include "records/RecordValue.hpp"

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// A text that is not UTF-8, or that its class could not make, is told as the binding library tells it.
std::string textOf(const py::object& text) {
  Py_ssize_t size = 0;
  const char* const utf8 = text ? PyUnicode_AsUTF8AndSize(text.ptr(), &size) : nullptr;
  if (utf8 != nullptr) return {utf8, static_cast<std::size_t>(size)};
  PyErr_Clear();
  return "<repr raised Error>";
}

std::string describe(py::handle value) { return textOf(py::reinterpret_steal<py::object>(PyObject_Repr(value.ptr()))); }

void append(std::string& text, py::handle value, bool& first) {
  text += first ? "" : ", ";
  text += describe(value);
  first = false;
}

void setError(std::string_view name, std::string_view kind, std::string_view signature, std::string_view invokedWith) {
  std::string text(name);
  text += "(): incompatible ";
  text += kind;
  text += " arguments. The following argument types are supported:\n    1. ";
  text += signature;
  text += "\n\nInvoked with: ";
  text += invokedWith;
  PyErr_SetString(PyExc_TypeError, text.c_str());
}

/// "(self: X) -> str" gives "str"; the notes of a field follow in later lines.
std::string_view resultOf(std::string_view signature) {
  constexpr std::string_view arrow = " -> ";
  const auto start = signature.find(arrow);
  return start == std::string_view::npos ? "" : signature.substr(start + arrow.size());
}

std::string_view firstLine(std::string_view doc) { return doc.substr(0, doc.find('\n')); }

} // namespace

void setConstructorError(const RecordType& type, PyObject* args, PyObject* kwargs) {
  std::string invokedWith;
  bool first = true;
  for (py::handle argument : py::reinterpret_borrow<py::tuple>(args))
    append(invokedWith, argument, first);
  if (kwargs != nullptr && PyDict_GET_SIZE(kwargs) != 0) {
    invokedWith += first ? "kwargs: " : "; kwargs: ";
    first = true;
    for (const auto& [name, value] : py::reinterpret_borrow<py::dict>(kwargs)) {
      invokedWith += (first ? "" : ", ") + textOf(py::reinterpret_borrow<py::object>(name)) + "=" + describe(value);
      first = false;
    }
  }
  setError("__init__", "constructor", std::string(type.name) + "()", invokedWith);
}

void setKeywordError(const RecordType& type, PyObject* name) {
  py::list known;
  for (std::size_t i = 0; i < type.attributeCount; ++i)
    known.append(py::handle(type.attributeNames[i]));
  py::object near = known;
  if (PyUnicode_Check(name)) near = py::module_::import("difflib").attr("get_close_matches")(py::handle(name), known);
  const bool isNear = py::len(near) != 0;
  const py::object listed = py::str(isNear ? " or " : ", ").attr("join")(isNear ? near : known);
  const char* const hint = isNear ? "; did you mean " : "; it takes ";
  const std::string_view shown = shortName(type.name);
  if (py::len(known) == 0)
    PyErr_Format(PyExc_TypeError, "%s() takes no arguments, not %R", shown.data(), name);
  else
    PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument %R%s%U%s", shown.data(), name, hint,
                 listed.ptr(), isNear ? "?" : "");
}

void setKeywordValueError(const RecordType& type, const Field& field, PyObject* value) {
  std::string taken(resultOf(firstLine(field.doc)));
  if (field.kind == FieldKind::Number)
    taken += " of 0 to " + std::to_string(std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * field.width));
  const py::error_already_set cause;
  PyErr_Format(PyExc_TypeError, "%s(): %s takes %s, not %.200R", shortName(type.name).data(), field.attribute,
               taken.c_str(), value);
  const py::error_already_set error;
  PyException_SetCause(error.value().ptr(), py::object(cause.value()).release().ptr());
  PyErr_SetObject(error.type().ptr(), error.value().ptr());
}

void setAttributeError(const Field& field, PyObject* self, PyObject* value) {
  const std::string_view line = firstLine(field.doc); // "(self: X) -> T"
  std::string signature(line.substr(0, line.find(')')));
  signature += ", arg0: ";
  signature += resultOf(line);
  signature += ") -> None";
  setError("", "function", signature, describe(self) + ", " + describe(value));
}

void setNoDeleterError(const Field& field, PyObject* self) {
  const std::string_view type(Py_TYPE(self)->tp_name);
  PyErr_Format(PyExc_AttributeError, "property '%s' of '%s' object has no deleter", field.attribute,
               type.substr(type.rfind('.') + 1).data());
}

void setArgumentError(const char* doc, PyObject* const* args, Py_ssize_t count, PyObject* names) {
  const std::string_view line = firstLine(doc);
  const auto opening = line.find('(');
  std::string invokedWith;
  bool first = true;
  for (Py_ssize_t i = 0; i < count; ++i)
    append(invokedWith, args[i], first);
  const Py_ssize_t named = names == nullptr ? 0 : PyTuple_GET_SIZE(names);
  for (Py_ssize_t i = 0; i < named; ++i) {
    invokedWith += i == 0 ? (first ? "kwargs: " : "; kwargs: ") : ", ";
    invokedWith +=
        textOf(py::reinterpret_borrow<py::object>(PyTuple_GET_ITEM(names, i))) + "=" + describe(args[count + i]);
  }
  setError(line.substr(0, opening), "function", line.substr(opening), invokedWith);
}

void translateException() noexcept {
  try {
    throw;
  } catch (py::error_already_set& error) {
    error.restore();
  } catch (const py::builtin_exception& error) {
    error.set_error();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  } catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "Caught an unknown exception!");
  }
}

} // namespace vorlinkit::python
