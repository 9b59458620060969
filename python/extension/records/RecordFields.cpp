// Reading and writing attributes of records: one pair of functions per kind of field, for all record types.
#include "records/Conversions.hpp"
#include "records/RecordErrors.hpp"
#include "records/RecordObject.hpp"

#include <pybind11/pybind11.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

const Field& asField(void* closure) { return *static_cast<const Field*>(closure); }

/// Asked for anew after anything that may run Python code: a write elsewhere can move an alternative.
void* memberOf(PyObject* self, const Field& field) { return static_cast<char*>(asRecord(self)->record) + field.offset; }

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

} // namespace

template <typename Number> PyObject* readNumber(PyObject* self, void* field) {
  return PyLong_FromUnsignedLongLong(*static_cast<const Number*>(memberOf(self, asField(field))));
}

template <typename Number> int writeNumber(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    const auto number = numberFrom(value, std::numeric_limits<Number>::max());
    if (!number) return false;
    *static_cast<Number*>(memberOf(self, field)) = static_cast<Number>(*number);
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
    const TextView text(value);
    if (!text.good()) return false;
    *static_cast<std::string*>(memberOf(self, field)) = text.text();
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
    // One anchor for all items. It is held here too, so that it stays when the items run out of memory.
    ViewAnchor* const anchor = createViewAnchor(*asRecord(self)->anchor, stored, &operations);
    ++anchor->holders;
    char* item = static_cast<char*>(operations.data(stored));
    for (std::size_t i = 0; i < size; ++i, item += operations.stride) {
      PyObject* view = newView(*operations.item, item, *anchor);
      if (view == nullptr) {
        result = py::object();
        release(anchor);
        return nullptr;
      }
      ++anchor->holders;
      PyList_SET_ITEM(result.ptr(), static_cast<Py_ssize_t>(i), view);
    }
    --anchor->holders;
    return result.release().ptr();
  });
}

int writeList(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    const auto elements = elementsFrom(value);
    if (!elements) return false;
    const ListOperations& operations = listOperations(field);
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(elements->ptr()));
    std::vector<const void*> items(count);
    for (std::size_t i = 0; i < count; ++i) {
      PyObject* element = PyTuple_GET_ITEM(elements->ptr(), static_cast<Py_ssize_t>(i));
      if (!PyObject_TypeCheck(element, operations.item->pythonType)) return false;
      items[i] = asRecord(element)->record;
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
    replaceBytes(*asRecord(self)->anchor->root, memberOf(self, field), blobOperations(field), bytes.data(),
                 bytes.size());
    return true;
  });
}

PyObject* readVariant(PyObject* self, void* closure) {
  return guarded([&]() -> PyObject* {
    const Field& field = asField(closure);
    const VariantOperations& operations = variantOperations(field);
    void* stored = memberOf(self, field);
    const RecordType& type = *operations.alternatives[operations.index(stored)];
    ViewAnchor* const anchor = createViewAnchor(*asRecord(self)->anchor, stored, &operations);
    anchor->holders = 1;
    PyObject* view = newView(type, operations.active(stored), *anchor);
    if (view == nullptr) {
      release(anchor);
      return nullptr;
    }
    anchor->onlyView = asRecord(view);
    return view;
  });
}

int writeVariant(PyObject* self, PyObject* value, void* closure) {
  return writeAttribute(self, value, closure, [&](const Field& field) {
    const VariantOperations& operations = variantOperations(field);
    for (std::size_t i = 0; i < operations.count; ++i) {
      if (PyObject_TypeCheck(value, operations.alternatives[i]->pythonType)) {
        replaceVariant(*asRecord(self)->anchor->root, memberOf(self, field), operations, i, asRecord(value)->record);
        return true;
      }
    }
    return false;
  });
}

} // namespace vorlinkit::python
