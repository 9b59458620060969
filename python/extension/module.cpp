// The initialiser of the extension module.
#include "bindings.hpp"
#include "interpreter/CoreText.hpp"
#include "interpreter/SessionLifetime.hpp"

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

constexpr auto moduleName = "vorlinkit_python";
constexpr auto moduleDoc = "Wrapper Python para VorlinKit";

void initialise(py::module_& module) {
  module.doc() = moduleDoc;
  registerLogger(module);
  registerConfig(module);
  registerCodedValues(module);
  registerEventQueue(module);
  registerSession(module);
#ifdef VORLINKIT_COMMAND_BLOCKS
  registerCommandBlocks(module);
#endif
  decodeCoreText({});
  SessionLifetime::install();
}

/// Classes and threads of the module belong to one interpreter of the process. Asked before the binding library
/// sets itself up, which it does once per process, too.
const char* reasonToRefuse(bool hadInterpreter) {
  if (PyInterpreterState_Get() != PyInterpreterState_Main())
    return "vorlinkit_python cannot be imported in a sub-interpreter";
  if (hadInterpreter)
    return "vorlinkit_python cannot be imported once more in this process: the interpreter that had imported it has "
           "been finalised";
  return nullptr;
}

PyObject* createModule() {
  PYBIND11_ENSURE_INTERNALS_READY
  static py::module_::module_def definition;
  auto module = py::module_::create_extension_module(moduleName, nullptr, &definition);
  definition.m_size = 0;
  try {
    initialise(module);
    return module.release().ptr();
  }
  PYBIND11_CATCH_INIT_EXCEPTIONS
  return nullptr; // of newer versions of the macro, which leave it to us
}

/// The module of this interpreter, whose dictionary keeps it: that ends with the interpreter.
PyObject* moduleOfInterpreter() {
  static bool hadInterpreter = false;
  auto* const own = PyInterpreterState_GetDict(PyInterpreterState_Get());
  if (!own) return PyErr_NoMemory();
  if (auto* const known = PyDict_GetItemString(own, moduleName)) return Py_NewRef(known);
  if (const auto* const reason = reasonToRefuse(hadInterpreter)) {
    PyErr_SetString(PyExc_ImportError, reason);
    return nullptr;
  }
  auto* const module = createModule();
  if (!module || PyDict_SetItemString(own, moduleName, module) != 0) return nullptr;
  hadInterpreter = true;
  return module;
}

} // namespace

} // namespace vorlinkit::python

// The binding library's module macro, written out for two steps that it has no place for: the refusal of
// interpreters, and the size of the module's state. With the macro's -1 an import in a sub-interpreter
// would copy the main interpreter's module without asking us; with 0 it comes here again, and so does a
// repeated import in the main interpreter, which is given the module it has.
extern "C" PYBIND11_MAYBE_UNUSED PYBIND11_EXPORT PyObject* PyInit_vorlinkit_python();
extern "C" PYBIND11_EXPORT PyObject* PyInit_vorlinkit_python() {
  PYBIND11_CHECK_PYTHON_VERSION
  return vorlinkit::python::moduleOfInterpreter();
}
