// A record of the catalogue as a Python object.
#pragma once

#include "records/RecordAnchor.hpp"

#include <pybind11/pybind11.h>

namespace vorlinkit::python {

/// Looks at a record and owns nothing of it, the anchor does. A list of n items makes n of these, so there is
/// no map of instances and nothing else to keep up.
struct RecordObject {
  PyObject_HEAD // NOLINT
      PyObject* weakReferences;
  const RecordType* type; ///< also where the class is a Python subclass
  void* record;
  RecordAnchor* anchor;
};

inline RecordObject* asRecord(PyObject* object) { return reinterpret_cast<RecordObject*>(object); }

/// A new object of the type's own class that looks at `record`; the caller has counted it as a holder of the
/// anchor. Null with MemoryError set if there is no memory.
PyObject* newView(const RecordType& type, void* record, RecordAnchor& anchor) noexcept;

/// Whether a class is one of ours, or derives from one.
bool isRecordClass(const PyTypeObject* pythonType);

/// A new record of a class of ours, or of one that derives from it, whose `__init__` has not been called. Throws.
pybind11::object newRecordOf(PyTypeObject* pythonType);

/// Makes the class of a record and puts it into the module. Throws pybind11::error_already_set.
void registerRecord(const pybind11::module_& module, RecordType& type);

} // namespace vorlinkit::python
