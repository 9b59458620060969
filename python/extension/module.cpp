// The initialiser of the extension module.
#include "bindings.hpp"
#include "interpreter/CoreText.hpp"
#include "interpreter/SessionLifetime.hpp"

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

constexpr auto MODULE_DOC = "Wrapper Python para VorlinKit";

void initialise(py::module_& module) {
  module.doc() = MODULE_DOC;
  registerLogger(module);
  registerConfig(module);
  registerCodedValues(module);
  registerSession(module);
#ifdef VORLINKIT_COMMAND_BLOCKS
  registerCommandBlocks(module);
#endif
  decodeCoreText({});
  SessionLifetime::install();
}

/// Classes and threads of the module belong to one interpreter. Checked before the binding library sets
/// itself up, which it does once per process.
bool refuseSubInterpreter() {
  if (PyInterpreterState_Get() == PyInterpreterState_Main()) return false;
  PyErr_SetString(PyExc_ImportError, "vorlinkit_python cannot be imported in a sub-interpreter");
  return true;
}

} // namespace

} // namespace vorlinkit::python

// The binding library's module macro, written out for two steps that it has no place for: the refusal of
// sub-interpreters, and the size of the module's state. With the macro's -1 an import in a sub-interpreter
// would copy the main interpreter's module without asking us; with 0 it comes here again, and so does a
// repeated import in the main interpreter, which is given the module it has.
extern "C" PYBIND11_MAYBE_UNUSED PYBIND11_EXPORT PyObject* PyInit_vorlinkit_python();
extern "C" PYBIND11_EXPORT PyObject* PyInit_vorlinkit_python() {
  PYBIND11_CHECK_PYTHON_VERSION
  if (vorlinkit::python::refuseSubInterpreter()) return nullptr;
  static PyObject* initialised = nullptr;
  if (initialised) return Py_NewRef(initialised);
  PYBIND11_ENSURE_INTERNALS_READY
  static py::module_::module_def definition;
  auto module = py::module_::create_extension_module("vorlinkit_python", nullptr, &definition);
  definition.m_size = 0;
  try {
    vorlinkit::python::initialise(module);
    initialised = Py_NewRef(module.ptr());
    return module.ptr();
  }
  PYBIND11_CATCH_INIT_EXCEPTIONS
}
