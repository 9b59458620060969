// A record of the catalogue as a Python object.
#pragma once

#include "records/RecordAnchor.hpp"

#include <pybind11/pybind11.h>

namespace vorlinkit::python {

/// An instance of the binding library with room for an anchor. Where that library keeps a pointer to the C++
/// object, so does this, hence its casts see an ordinary instance; in the unused room for a holder stands the
/// type of the record. It owns nothing itself, the anchor does. A list of n items makes n of these, so there
/// is no map of instances and nothing else to keep up.
struct RecordObject {
  pybind11::detail::instance instance;
  RecordAnchor* anchor;
};

inline RecordObject* asRecord(PyObject* object) { return reinterpret_cast<RecordObject*>(object); }

inline void* recordOf(const RecordObject& object) { return object.instance.simple_value_holder[0]; }

inline void setRecord(RecordObject& object, void* record) { object.instance.simple_value_holder[0] = record; }

/// The type of the record, also for objects of Python subclasses.
inline const RecordType& typeOf(const RecordObject& object) {
  return *static_cast<const RecordType*>(object.instance.simple_value_holder[2]);
}

/// A new object of the type's own class that looks at `record`; the caller has counted it as a holder of the
/// anchor. Null with MemoryError set if there is no memory.
PyObject* newView(const RecordType& type, void* record, RecordAnchor& anchor) noexcept;

/// Makes the class of a record and puts it into the module. Throws pybind11::error_already_set.
void registerRecord(pybind11::module_& module, RecordType& type);

} // namespace vorlinkit::python
