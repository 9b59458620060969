#include "records/Conversions.hpp"

#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

std::optional<std::uint64_t> numberFromInt(PyObject* value, std::uint64_t maximum, bool& refused) {
  const std::uint64_t number = PyLong_AsUnsignedLongLong(value);
  refused = number == static_cast<std::uint64_t>(-1) && PyErr_Occurred() != nullptr;
  if (refused) PyErr_Clear();
  return refused || number > maximum ? std::nullopt : std::optional(number);
}

} // namespace

std::optional<std::uint64_t> numberFrom(PyObject* value, std::uint64_t maximum) {
  if (PyFloat_Check(value)) return std::nullopt;
  bool refused = false;
  auto number = numberFromInt(value, maximum, refused);
  if (!refused || PyNumber_Check(value) == 0) return number;
  const auto converted = py::reinterpret_steal<py::object>(PyNumber_Long(value));
  if (converted) return numberFromInt(converted.ptr(), maximum, refused);
  PyErr_Clear();
  return std::nullopt;
}

TextView::TextView(PyObject* value) {
  if (PyBytes_Check(value)) {
    take(value);
  } else if (PyByteArray_Check(value)) {
    bytes_ = PyByteArray_AS_STRING(value);
    size_ = PyByteArray_GET_SIZE(value);
  } else if (PyUnicode_Check(value)) {
    bytes_ = PyUnicode_AsUTF8AndSize(value, &size_);
    if (bytes_ == nullptr) encode(value);
  }
}

void TextView::encode(PyObject* value) {
  PyErr_Clear();
  encoded_ = py::reinterpret_steal<py::object>(PyUnicode_AsEncodedString(value, "utf-8", "surrogateescape"));
  if (encoded_)
    take(encoded_.ptr());
  else
    PyErr_Clear();
}

void TextView::take(PyObject* bytes) {
  bytes_ = PyBytes_AS_STRING(bytes);
  size_ = PyBytes_GET_SIZE(bytes);
}

std::optional<py::object> elementsFrom(PyObject* value) {
  if (PyTuple_CheckExact(value)) return py::reinterpret_borrow<py::object>(value);
  if (PyList_CheckExact(value)) {
    auto elements = py::reinterpret_steal<py::object>(PyList_AsTuple(value));
    if (!elements) throw py::error_already_set();
    return elements;
  }
  if (!PySequence_Check(value) || PyUnicode_Check(value) || PyBytes_Check(value)) return std::nullopt;
  const Py_ssize_t size = PySequence_Size(value);
  if (size < 0) throw py::error_already_set();
  std::vector<py::object> elements;
  for (Py_ssize_t i = 0; i < size; ++i) {
    elements.push_back(py::reinterpret_steal<py::object>(PySequence_GetItem(value, i)));
    if (!elements.back()) throw py::error_already_set();
  }
  py::tuple tuple(elements.size()); // only now, since the collector shows a half-filled one to everybody
  for (std::size_t i = 0; i < elements.size(); ++i)
    PyTuple_SET_ITEM(tuple.ptr(), static_cast<Py_ssize_t>(i), elements[i].release().ptr());
  return tuple;
}

BytesView::BytesView(PyObject* value) : good_(PyObject_GetBuffer(value, &buffer_, PyBUF_SIMPLE) == 0) {
  if (!good_) PyErr_Clear();
}

BytesView::~BytesView() {
  if (good_) PyBuffer_Release(&buffer_);
}

} // namespace vorlinkit::python
