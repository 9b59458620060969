#include "records/RecordObject.hpp"

#include "records/RecordErrors.hpp"
#include "records/RecordMethods.hpp"

#include <string>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// Makes the object look at a record of which `anchor` counts it as a holder.
PyObject* settle(PyObject* self, const RecordType& type, void* record, RecordAnchor& anchor) noexcept {
  RecordObject& object = *asRecord(self);
  object.weakReferences = nullptr;
  object.type = &type;
  object.record = record;
  object.anchor = &anchor;
  return self;
}

void deallocateRecord(PyObject* self) {
  if (asRecord(self)->weakReferences != nullptr) PyObject_ClearWeakRefs(self);
  RecordAnchor* const anchor = asRecord(self)->anchor;
  if (anchor->kind == RecordAnchor::Kind::View) {
    auto* const view = static_cast<ViewAnchor*>(anchor);
    if (view->onlyView == asRecord(self)) view->onlyView = nullptr;
  }
  release(anchor);
  PyTypeObject* const pythonType = Py_TYPE(self);
  pythonType->tp_free(self);
  Py_DECREF(pythonType);
}

/// The class of ours that a class is or derives from; null if there is none.
const PyTypeObject* ownClassOf(const PyTypeObject* pythonType) {
  while (pythonType != nullptr && pythonType->tp_dealloc != deallocateRecord)
    pythonType = pythonType->tp_base;
  return pythonType;
}

PyObject* newRecord(PyTypeObject* pythonType, PyObject*, PyObject*) {
  return guarded([&]() -> PyObject* {
    const RecordType& type = *reinterpret_cast<const RecordType*>(ownClassOf(pythonType)->tp_methods);
    RootAnchor* const root = allocateRoot(type);
    type.construct(root->record());
    root->holders = 1;
    PyObject* const self = pythonType->tp_alloc(pythonType, 0);
    if (self == nullptr) {
      release(root);
      return nullptr;
    }
    return settle(self, type, root->record(), *root);
  });
}

/// The record was made by newRecord; all that is left is to assign what was given by name.
int initRecord(PyObject* self, PyObject* args, PyObject* kwargs) {
  if (PyTuple_GET_SIZE(args) != 0)
    return guarded([&] { return setConstructorError(*asRecord(self)->type, args, kwargs), -1; });
  return kwargs == nullptr ? 0 : assignAttributes(self, kwargs);
}

PyObject* callInit(PyObject* self, PyObject* args, PyObject* kwargs) {
  if (initRecord(self, args, kwargs) != 0) return nullptr;
  Py_RETURN_NONE;
}

/// Attribute view of record classes, not of their Python subclasses. What is asked for is nearly always a
/// field, and as long as nobody has changed the class a comparison of names finds it.
PyObject* getAttribute(PyObject* self, PyObject* name) {
  const RecordType& type = *asRecord(self)->type;
  if (Py_TYPE(self)->tp_version_tag == type.classVersion && type.classVersion != 0) {
    for (std::size_t i = 0; i < type.attributeCount; ++i) {
      if (type.attributeNames[i] == name) {
        const PyGetSetDef& attribute = type.attributes[i];
        return attribute.get(self, attribute.closure);
      }
    }
  }
  return PyObject_GenericGetAttr(self, name);
}

/// Set once the class is complete: as a plain slot, since the interpreter would otherwise show it as an
/// attribute of the class and hand it on to subclasses, which may have attributes of their own.
void shortenAttributeAccess(RecordType& type) {
  PyTypeObject& pythonType = *type.pythonType;
  while (type.attributes[type.attributeCount].name != nullptr)
    ++type.attributeCount;
  type.attributeNames = new PyObject*[type.attributeCount]; // as long-lived as the class
  PyObject* name = nullptr;
  PyObject* member = nullptr;
  std::size_t i = 0;
  for (Py_ssize_t place = 0; PyDict_Next(pythonType.tp_dict, &place, &name, &member) != 0;)
    if (Py_IS_TYPE(member, &PyGetSetDescr_Type)) type.attributeNames[i++] = Py_NewRef(name); // interned, in order
  if (type.attributeCount != 0)
    _PyType_Lookup(&pythonType, type.attributeNames[0]); // has the interpreter give the class a version
  type.classVersion = pythonType.tp_version_tag;
  pythonType.tp_getattro = getAttribute;
}

/// Instead of the interpreter's own for tp_init, to have a documentation that names the class.
void describeInit(RecordType& type) {
  const auto* const doc = new std::string(std::string("__init__(self: ") + type.name + ") -> None\n"); // as long-lived
  type.methods[0] = {"__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(callInit)),
                     METH_VARARGS | METH_KEYWORDS, doc->c_str()};
}

PyTypeObject* createClass(RecordType& type) {
  PyType_Slot slots[] = {{Py_tp_new, reinterpret_cast<void*>(newRecord)},
                         {Py_tp_dealloc, reinterpret_cast<void*>(deallocateRecord)},
                         {Py_tp_getset, type.attributes},
                         {Py_tp_methods, type.methods},
                         {Py_tp_doc, const_cast<char*>(type.doc)},
                         {0, nullptr}};
  PyType_Spec definition{type.name, sizeof(RecordObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots};
  auto* const made = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&definition));
  if (made == nullptr) throw py::error_already_set();
  made->tp_init = initRecord; // not as a slot, which would make `__init__` once more
  addRecordMethods(*made);
  made->tp_weaklistoffset = offsetof(RecordObject, weakReferences); // as a member it would be an attribute, too
  return made;
}

} // namespace

PyObject* newView(const RecordType& type, void* record, RecordAnchor& anchor) noexcept {
  void* const memory = PyObject_Malloc(sizeof(RecordObject));
  if (memory == nullptr) return PyErr_NoMemory();
  return settle(PyObject_Init(static_cast<PyObject*>(memory), type.pythonType), type, record, anchor);
}

bool isRecordClass(const PyTypeObject* pythonType) { return ownClassOf(pythonType) != nullptr; }

py::object newRecordOf(PyTypeObject* pythonType) {
  auto made = py::reinterpret_steal<py::object>(newRecord(pythonType, nullptr, nullptr));
  if (!made) throw py::error_already_set();
  return made;
}

void registerRecord(const py::module_& module, RecordType& type) {
  describeInit(type);
  type.pythonType = createClass(type);
  shortenAttributeAccess(type);
  auto* const made = reinterpret_cast<PyObject*>(type.pythonType);
  if (PyObject_SetAttr(module.ptr(), reinterpret_cast<PyHeapTypeObject*>(made)->ht_name, made) != 0)
    throw py::error_already_set();
}

} // namespace vorlinkit::python
