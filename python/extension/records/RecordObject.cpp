#include "records/RecordObject.hpp"

#include "records/RecordErrors.hpp"

#include <cstring>
#include <deque>
#include <stdexcept>
#include <string>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// Makes the object look at a record of which `anchor` counts it as a holder. To the binding library it is
/// complete, and none of its business.
void settle(RecordObject& object, const RecordType& type, void* record, RecordAnchor& anchor) {
  object.instance.simple_layout = true;
  object.instance.simple_holder_constructed = true;
  object.instance.simple_value_holder[2] = const_cast<RecordType*>(&type);
  setRecord(object, record);
  object.anchor = &anchor;
}

/// The record type of a class of ours or of a Python subclass. Other bound classes cannot be mixed in: an
/// object has room for one record.
const RecordType& recordTypeOf(PyTypeObject* python_type) {
  const auto& bound = py::detail::all_type_info(python_type);
  if (bound.size() != 1)
    throw py::type_error("a class cannot derive from a record class and another class of vorlinkit_python");
  return *static_cast<const RecordType*>(bound.front()->get_buffer_data);
}

PyObject* newRecord(PyTypeObject* python_type, PyObject*, PyObject*) {
  return guarded([&]() -> PyObject* {
    const RecordType& type = recordTypeOf(python_type);
    RootAnchor* root = allocateRoot(type);
    type.construct(root->record());
    root->holders = 1;
    PyObject* self = python_type->tp_alloc(python_type, 0);
    if (self == nullptr) {
      release(root);
      return nullptr;
    }
    settle(*asRecord(self), type, root->record(), *root);
    return self;
  });
}

/// The record was made by newRecord; all that is left is to refuse arguments.
int initRecord(PyObject* self, PyObject* args, PyObject* kwargs) {
  if (PyTuple_GET_SIZE(args) == 0 && (kwargs == nullptr || PyDict_GET_SIZE(kwargs) == 0)) return 0;
  return guarded([&] { return setConstructorError(*typeOf(*asRecord(self)).python_type, args, kwargs), -1; });
}

PyObject* callInit(PyObject* self, PyObject* args, PyObject* kwargs) {
  if (initRecord(self, args, kwargs) != 0) return nullptr;
  Py_RETURN_NONE;
}

/// Attribute access of record classes, not of their Python subclasses. What is asked for is nearly always a
/// field, and as long as nobody has changed the class a comparison of names finds it.
PyObject* getAttribute(PyObject* self, PyObject* name) {
  const RecordType& type = typeOf(*asRecord(self));
  if (Py_TYPE(self)->tp_version_tag == type.class_version && type.class_version != 0) {
    for (std::size_t i = 0; i < type.attribute_count; ++i) {
      if (type.attribute_names[i] == name) {
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
  PyTypeObject& python_type = *type.python_type;
  while (type.attributes[type.attribute_count].name != nullptr)
    ++type.attribute_count;
  type.attribute_names = new PyObject*[type.attribute_count]; // as long-lived as the class
  for (std::size_t i = 0; i < type.attribute_count; ++i)
    type.attribute_names[i] = PyUnicode_InternFromString(type.attributes[i].name);
  if (type.attribute_count != 0)
    _PyType_Lookup(&python_type, type.attribute_names[0]); // has the interpreter give the class a version
  type.class_version = python_type.tp_version_tag;
  python_type.tp_getattro = getAttribute;
}

void deallocateRecord(PyObject* self) {
  RecordObject* object = asRecord(self);
  if (object->instance.weakrefs != nullptr) PyObject_ClearWeakRefs(self);
  RecordAnchor* anchor = object->anchor;
  if (anchor->kind == RecordAnchor::Kind::Lease) {
    auto* lease = static_cast<LeaseAnchor*>(anchor);
    if (lease->view == object) lease->view = nullptr;
  }
  release(anchor);
  PyTypeObject* type = Py_TYPE(self);
  type->tp_free(self);
  Py_DECREF(type);
}

/// Lives as long as the process, as the classes do.
PyMethodDef* initMethod(const RecordType& type) {
  struct Method {
    std::string doc;
    PyMethodDef definitions[2];
  };
  static std::deque<Method> methods;
  auto& method = methods.emplace_back();
  method.doc = std::string("__init__(self: vorlinkit_python.") + type.name + ") -> None\n";
  method.definitions[0] = {"__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(callInit)),
                           METH_VARARGS | METH_KEYWORDS | METH_COEXIST, method.doc.c_str()};
  return method.definitions;
}

/// Opens the registration of a class to a type that is only known from a table.
struct RecordClass : py::detail::generic_type {
  using generic_type::initialize;
};

void refuseNativeInstance(py::detail::instance*, const void*) {
  throw std::runtime_error("records reach Python through their own decoders");
}

void leaveToAnchor(py::detail::value_and_holder&) {}

} // namespace

PyObject* newView(const RecordType& type, void* record, RecordAnchor& anchor) noexcept {
  auto* object = static_cast<RecordObject*>(PyObject_Malloc(sizeof(RecordObject)));
  if (object == nullptr) return PyErr_NoMemory();
  PyObject* self = PyObject_Init(reinterpret_cast<PyObject*>(object), type.python_type);
  std::memset(reinterpret_cast<char*>(object) + sizeof(PyObject), 0, sizeof(RecordObject) - sizeof(PyObject));
  settle(*object, type, record, anchor);
  return self;
}

void registerRecord(py::module_& module, RecordType& type) {
  py::detail::type_record description;
  description.scope = module;
  description.name = type.name;
  description.doc = type.doc;
  description.type = type.cpp_type;
  description.type_size = type.size;
  description.type_align = type.align;
  description.holder_size = sizeof(std::unique_ptr<int>);
  description.init_instance = refuseNativeInstance;
  description.dealloc = leaveToAnchor;
  description.custom_type_setup_callback = [&type](PyHeapTypeObject* heap_type) {
    PyTypeObject& python_type = heap_type->ht_type;
    python_type.tp_basicsize = sizeof(RecordObject);
    python_type.tp_new = newRecord;
    python_type.tp_init = initRecord;
    python_type.tp_dealloc = deallocateRecord;
    python_type.tp_getset = type.attributes;
    python_type.tp_methods = initMethod(type);
  };
  RecordClass record_class;
  record_class.initialize(description);
  type.python_type = reinterpret_cast<PyTypeObject*>(record_class.inc_ref().ptr());
  shortenAttributeAccess(type);
  // The way back from a Python class, inherited by its subclasses; a slot that only buffer classes use.
  py::detail::get_type_info(type.python_type)->get_buffer_data = &type;
}

} // namespace vorlinkit::python
