// Reading and writing attributes of records: one pair of functions per kind of field, for all record types.
#include "records/RecordErrors.hpp"
#include "records/RecordObject.hpp"

#include <pybind11/pybind11.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

const Field& asField(void* closure) { return *static_cast<const Field*>(closure); }

/// Asked for anew after anything that may run Python code: a write elsewhere can move an alternative.
void* memberOf(PyObject* self, const Field& field) {
  return static_cast<char*>(recordOf(*asRecord(self))) + field.offset;
}

const ListOperations& listOperations(const Field& field) {
  return *static_cast<const ListOperations*>(field.operations);
}

const VariantOperations& variantOperations(const Field& field) {
  return *static_cast<const VariantOperations*>(field.operations);
}

/// The rules of a setter: no deletion, a value that does not convert is a TypeError, nothing is half done.
/// `write` returns false for a value of the wrong kind.
template <typename Write> int writeAttribute(PyObject* self, PyObject* value, void* closure, Write&& write) noexcept {
  return guarded([&] {
    const Field& field = asField(closure);
    if (value == nullptr) {
      setNoDeleterError(field, self);
      return -1;
    }
    if (write(field)) return 0;
    setAttributeError(field, self, value);
    return -1;
  });
}

/// The bytes of a text as the machine keeps them: UTF-8, where bytes that were none survive a round trip.
bool encodeText(PyObject* value, std::string& text) {
  if (PyUnicode_Check(value)) {
    Py_ssize_t size = 0;
    if (const char* utf8 = PyUnicode_AsUTF8AndSize(value, &size)) {
      text.assign(utf8, static_cast<std::size_t>(size));
      return true;
    }
    PyErr_Clear();
    const auto bytes = py::reinterpret_steal<py::object>(PyUnicode_AsEncodedString(value, "utf-8", "surrogateescape"));
    if (!bytes) {
      PyErr_Clear();
      return false;
    }
    text.assign(PyBytes_AS_STRING(bytes.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr())));
    return true;
  }
  if (PyBytes_Check(value)) {
    text.assign(PyBytes_AS_STRING(value), static_cast<std::size_t>(PyBytes_GET_SIZE(value)));
    return true;
  }
  if (PyByteArray_Check(value)) {
    text.assign(PyByteArray_AS_STRING(value), static_cast<std::size_t>(PyByteArray_GET_SIZE(value)));
    return true;
  }
  return false;
}

/// The elements of any sequence but text, held so that nothing can free them; an own sequence class may run
/// any code while it is asked. Empty if `value` is no sequence.
std::optional<py::object> elementsOf(PyObject* value) {
  if (PyList_CheckExact(value)) return py::reinterpret_steal<py::object>(PyList_AsTuple(value));
  if (PyTuple_CheckExact(value)) return py::reinterpret_borrow<py::object>(value);
  if (!PySequence_Check(value) || PyUnicode_Check(value) || PyBytes_Check(value)) return std::nullopt;
  const Py_ssize_t size = PySequence_Size(value);
  if (size < 0) throw py::error_already_set();
  py::tuple elements(size);
  for (Py_ssize_t i = 0; i < size; ++i) {
    PyObject* element = PySequence_GetItem(value, i);
    if (element == nullptr) throw py::error_already_set();
    PyTuple_SET_ITEM(elements.ptr(), i, element);
  }
  return elements;
}

/// A buffer given back when it is no longer needed.
class BytesView {
public:
  explicit BytesView(PyObject* value) : good_(PyObject_GetBuffer(value, &buffer_, PyBUF_SIMPLE) == 0) {
    if (!good_) PyErr_Clear();
  }
  BytesView(const BytesView&) = delete;
  BytesView& operator=(const BytesView&) = delete;
  ~BytesView() {
    if (good_) PyBuffer_Release(&buffer_);
  }

  bool good() const { return good_; }
  const char* data() const { return static_cast<const char*>(buffer_.buf); }
  std::size_t size() const { return static_cast<std::size_t>(buffer_.len); }

private:
  Py_buffer buffer_{};
  bool good_;
};

} // namespace

template <typename Number> PyObject* readNumber(PyObject* self, void* field) {
  return PyLong_FromUnsignedLongLong(*static_cast<const Number*>(memberOf(self, asField(field))));
}

template <typename Number> int writeNumber(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    py::detail::make_caster<Number> number;
    if (!number.load(value, true)) return false;
    *static_cast<Number*>(memberOf(self, field)) = py::detail::cast_op<Number>(number);
    return true;
  });
}

template PyObject* readNumber<std::uint8_t>(PyObject*, void*);
template PyObject* readNumber<std::uint16_t>(PyObject*, void*);
template PyObject* readNumber<std::uint32_t>(PyObject*, void*);
template PyObject* readNumber<std::uint64_t>(PyObject*, void*);
template int writeNumber<std::uint8_t>(PyObject*, PyObject*, void*);
template int writeNumber<std::uint16_t>(PyObject*, PyObject*, void*);
template int writeNumber<std::uint32_t>(PyObject*, PyObject*, void*);
template int writeNumber<std::uint64_t>(PyObject*, PyObject*, void*);

PyObject* readText(PyObject* self, void* field) {
  const auto& text = *static_cast<const std::string*>(memberOf(self, asField(field)));
  return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
}

int writeText(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    std::string text;
    if (!encodeText(value, text)) return false;
    *static_cast<std::string*>(memberOf(self, field)) = std::move(text);
    return true;
  });
}

PyObject* readList(PyObject* self, void* closure) {
  return guarded([&]() -> PyObject* {
    const Field& field = asField(closure);
    const ListOperations& operations = listOperations(field);
    void* stored = nullptr;
    std::size_t size = 0;
    py::object result;
    do {
      size = operations.size(memberOf(self, field));
      result = py::reinterpret_steal<py::object>(PyList_New(static_cast<Py_ssize_t>(size)));
      if (!result) throw py::error_already_set();
      stored = memberOf(self, field);
    } while (operations.size(stored) != size); // a new list may start a garbage collection, which may run any code
    if (size == 0) return result.release().ptr();
    // One lease for all items. It is held here too, so that it stays when the items run out of memory.
    LeaseAnchor* lease = createLease(*asRecord(self)->anchor, stored, &operations);
    ++lease->holders;
    char* item = static_cast<char*>(operations.data(stored));
    for (std::size_t i = 0; i < size; ++i, item += operations.stride) {
      PyObject* view = newView(*operations.item, item, *lease);
      if (view == nullptr) {
        result = py::object();
        release(lease);
        return nullptr;
      }
      ++lease->holders;
      PyList_SET_ITEM(result.ptr(), static_cast<Py_ssize_t>(i), view);
    }
    --lease->holders;
    return result.release().ptr();
  });
}

int writeList(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    const auto elements = elementsOf(value);
    if (!elements) return false;
    if (!*elements) throw py::error_already_set();
    const ListOperations& operations = listOperations(field);
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(elements->ptr()));
    std::vector<const void*> items(count);
    for (std::size_t i = 0; i < count; ++i) {
      PyObject* element = PyTuple_GET_ITEM(elements->ptr(), static_cast<Py_ssize_t>(i));
      if (!PyObject_TypeCheck(element, operations.item->python_type)) return false;
      items[i] = recordOf(*asRecord(element));
    }
    replaceList(*asRecord(self)->anchor->root, memberOf(self, field), operations, items.data(), count);
    return true;
  });
}

PyObject* readBlob(PyObject* self, void* closure) {
  const Field& field = asField(closure);
  const ListOperations& operations = listOperations(field);
  void* stored = memberOf(self, field);
  return PyBytes_FromStringAndSize(static_cast<const char*>(operations.data(stored)),
                                   static_cast<Py_ssize_t>(operations.size(stored)));
}

int writeBlob(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    if (PyUnicode_Check(value)) return false;
    const BytesView bytes(value);
    if (!bytes.good()) return false;
    const auto& operations = static_cast<const BlobOperations&>(listOperations(field));
    replaceBytes(*asRecord(self)->anchor->root, memberOf(self, field), operations, bytes.data(), bytes.size());
    return true;
  });
}

PyObject* readVariant(PyObject* self, void* closure) {
  return guarded([&]() -> PyObject* {
    const Field& field = asField(closure);
    const VariantOperations& operations = variantOperations(field);
    void* stored = memberOf(self, field);
    const RecordType& type = *operations.alternatives[operations.index(stored)];
    LeaseAnchor* lease = createLease(*asRecord(self)->anchor, stored, &operations);
    lease->holders = 1;
    PyObject* view = newView(type, operations.active(stored), *lease);
    if (view == nullptr) {
      release(lease);
      return nullptr;
    }
    lease->view = asRecord(view);
    return view;
  });
}

int writeVariant(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    const VariantOperations& operations = variantOperations(field);
    for (std::size_t i = 0; i < operations.count; ++i) {
      if (PyObject_TypeCheck(value, operations.alternatives[i]->python_type)) {
        replaceVariant(*asRecord(self)->anchor->root, memberOf(self, field), operations, i, recordOf(*asRecord(value)));
        return true;
      }
    }
    return false;
  });
}

} // namespace vorlinkit::python
