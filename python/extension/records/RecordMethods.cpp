#include "records/RecordMethods.hpp"

#include "records/RecordErrors.hpp"
#include "records/RecordValue.hpp"

#include <string>
#include <type_traits>
#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// The function of the module that pickled records name. Written once, at import; as long-lived as the process.
PyObject* rebuildFunction = nullptr;

/// The attribute of this name; null if there is none.
const Field* findField(const RecordType& type, PyObject* name) {
  for (std::size_t i = 0; i < type.attributeCount; ++i)
    if (type.attributeNames[i] == name ||
        (PyUnicode_Check(name) && PyUnicode_Compare(type.attributeNames[i], name) == 0))
      return static_cast<const Field*>(type.attributes[i].closure);
  return nullptr;
}

bool isOfOwnClass(PyObject* self) { return Py_TYPE(self) == asRecord(self)->type->pythonType; }

/// What a Python subclass has added to a record: its `__dict__`, slots, or what it says itself. None if nothing.
py::object addedState(PyObject* self) {
  return isOfOwnClass(self) ? py::none() : py::handle(self).attr("__getstate__")();
}

/// As the interpreter does with the state of any object.
void addState(const py::object& record, const py::object& state) {
  if (state.is_none()) return;
  if (py::hasattr(record, "__setstate__")) {
    record.attr("__setstate__")(state);
    return;
  }
  const bool hasSlots = py::isinstance<py::tuple>(state) && py::len(state) == 2;
  const py::object attributes = hasSlots ? state[py::int_(0)] : state;
  if (!attributes.is_none()) record.attr("__dict__").attr("update")(attributes);
  if (!hasSlots) return;
  for (const auto& [name, value] : state[py::int_(1)].cast<py::dict>())
    py::setattr(record, name, value);
}

/// A record with the content of another one, of the same class and with nothing that a subclass adds.
py::object copyOf(PyObject* self) {
  py::object copy = newRecordOf(Py_TYPE(self));
  copyContent(*asRecord(self)->type, asRecord(copy.ptr())->record, asRecord(self)->record);
  return copy;
}

PyObject* rebuildRecord(PyObject*, PyObject* args) {
  return guarded([&]() -> PyObject* {
    PyObject* recordClass = nullptr;
    PyObject* values = nullptr;
    if (PyArg_ParseTuple(args, "O!O!:_rebuild_record", &PyType_Type, &recordClass, &PyDict_Type, &values) == 0)
      return nullptr;
    auto* const pythonType = reinterpret_cast<PyTypeObject*>(recordClass);
    if (!isRecordClass(pythonType)) return PyErr_Format(PyExc_TypeError, "%R is no class of records", recordClass);
    py::object record = newRecordOf(pythonType);
    return assignAttributes(record.ptr(), values) == 0 ? record.release().ptr() : nullptr;
  });
}

PyObject* compareRecords(PyObject* self, PyObject* other, int operation) {
  if (Py_TYPE(self) != Py_TYPE(other) || (operation != Py_EQ && operation != Py_NE)) Py_RETURN_NOTIMPLEMENTED;
  const bool same = sameContent(*asRecord(self)->type, asRecord(self)->record, asRecord(other)->record);
  return PyBool_FromLong(same == (operation == Py_EQ) ? 1 : 0);
}

PyObject* describeRecord(PyObject* self) {
  return guarded([&] {
    const RecordObject& object = *asRecord(self);
    const std::string text = describeContent(shortName(Py_TYPE(self)->tp_name), *object.type, object.record);
    return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), nullptr);
  });
}

PyObject* reduceRecord(PyObject* self) {
  const RecordType& type = *asRecord(self)->type;
  py::dict values;
  for (std::size_t i = 0; i < type.attributeCount; ++i) {
    const PyGetSetDef& attribute = type.attributes[i];
    if (static_cast<const Field*>(attribute.closure)->kind == FieldKind::BlobItems) continue; // its bytes follow
    const auto value = py::reinterpret_steal<py::object>(attribute.get(self, attribute.closure));
    if (!value || PyDict_SetItem(values.ptr(), type.attributeNames[i], value.ptr()) != 0) throw py::error_already_set();
  }
  const py::handle recordClass(reinterpret_cast<PyObject*>(Py_TYPE(self)));
  const py::tuple arguments = py::make_tuple(recordClass, values);
  const py::object state = addedState(self);
  const py::handle rebuild(rebuildFunction);
  py::tuple reduced = state.is_none() ? py::make_tuple(rebuild, arguments) : py::make_tuple(rebuild, arguments, state);
  return reduced.release().ptr();
}

PyObject* copyRecord(PyObject* self) {
  py::object copy = copyOf(self);
  addState(copy, addedState(self));
  return copy.release().ptr();
}

PyObject* deepCopyRecord(PyObject* self, PyObject* memo) {
  py::object copy = copyOf(self);
  const py::object state = addedState(self);
  if (state.is_none()) return copy.release().ptr();
  // Known before its state is copied, which may lead back to it.
  const auto identity = py::reinterpret_steal<py::object>(PyLong_FromVoidPtr(self));
  if (!identity || PyObject_SetItem(memo, identity.ptr(), copy.ptr()) != 0) throw py::error_already_set();
  addState(copy, py::module_::import("copy").attr("deepcopy")(state, py::handle(memo)));
  return copy.release().ptr();
}

PyObject* equalRecords(PyObject* self, PyObject* other) { return compareRecords(self, other, Py_EQ); }

using Arguments = PyObject* const*;

PyObject* call(PyObject* (*act)(PyObject*), Arguments arguments) { return act(arguments[0]); }

PyObject* call(PyObject* (*act)(PyObject*, PyObject*), Arguments arguments) { return act(arguments[0], arguments[1]); }

/// All classes share their methods, so these get to see any object.
template <auto Act> PyObject* enterMethod(PyObject*, Arguments arguments, Py_ssize_t count) {
  constexpr Py_ssize_t expected = std::is_invocable_v<decltype(Act), PyObject*> ? 1 : 2;
  if (count != expected || !isRecordClass(Py_TYPE(arguments[0])))
    return PyErr_Format(PyExc_TypeError, "a record and %zd further argument(s) expected", expected - 1);
  return guarded([&] { return call(Act, arguments); });
}

template <auto Act> PyMethodDef methodOf(const char* name, const char* doc) {
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(enterMethod<Act>)), METH_FASTCALL, doc};
}

PyMethodDef methodDefinitions[] = {
    methodOf<equalRecords>("__eq__", "Whether the other one is of this very class and holds the same."),
    methodOf<describeRecord>("__repr__", "Class and fields; long texts, bytes and lists are cut short."),
    methodOf<reduceRecord>("__reduce__", "For pickle."),
    methodOf<copyRecord>("__copy__", "A record of its own with the same content."),
    methodOf<deepCopyRecord>("__deepcopy__", "A record of its own with the same content."),
};

struct SharedMethod {
  PyObject* name;
  PyObject* method;
};

/// Made once: 700 classes with descriptors of their own would take a millisecond more to import.
const std::vector<SharedMethod>& sharedMethods() {
  static const std::vector<SharedMethod> methods = [] {
    std::vector<SharedMethod> made;
    for (PyMethodDef& definition : methodDefinitions) {
      const auto function = py::reinterpret_steal<py::object>(PyCFunction_New(&definition, nullptr));
      if (!function) throw py::error_already_set();
      made.push_back({PyUnicode_InternFromString(definition.ml_name), PyInstanceMethod_New(function.ptr())});
      if (made.back().name == nullptr || made.back().method == nullptr) throw py::error_already_set();
    }
    made.push_back({PyUnicode_InternFromString("__hash__"), Py_None});
    return made;
  }();
  return methods;
}

PyMethodDef rebuildDefinition = {"_rebuild_record", rebuildRecord, METH_VARARGS, "Makes a pickled record again."};

} // namespace

int assignAttributes(PyObject* self, PyObject* values) {
  return guarded([&] {
    const RecordType& type = *asRecord(self)->type;
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    for (Py_ssize_t place = 0; PyDict_Next(values, &place, &name, &value) != 0;) {
      // Held, since an assignment may run code that changes the dictionary.
      const auto heldName = py::reinterpret_borrow<py::object>(name);
      const auto heldValue = py::reinterpret_borrow<py::object>(value);
      const Field* const field = findField(type, name);
      if (field == nullptr) return setKeywordError(type, name), -1;
      if (PyObject_SetAttr(self, name, value) == 0) continue;
      if (PyErr_ExceptionMatches(PyExc_TypeError) != 0) setKeywordValueError(type, *field, heldValue.ptr());
      return -1;
    }
    return 0;
  });
}

void addRecordMethods(PyTypeObject& recordClass) {
  for (const auto& [name, method] : sharedMethods())
    if (PyDict_SetItem(recordClass.tp_dict, name, method) != 0) throw py::error_already_set();
  recordClass.tp_repr = describeRecord;
  recordClass.tp_richcompare = compareRecords;
  recordClass.tp_hash = PyObject_HashNotImplemented;
}

void registerRebuild(const py::module_& module) {
  const auto moduleName = py::object(module.attr("__name__"));
  rebuildFunction = PyCFunction_NewEx(&rebuildDefinition, module.ptr(), moduleName.ptr());
  if (rebuildFunction == nullptr ||
      PyModule_AddObjectRef(module.ptr(), rebuildDefinition.ml_name, rebuildFunction) != 0)
    throw py::error_already_set();
}

} // namespace vorlinkit::python
