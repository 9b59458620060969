// What Python asks of a record beside its attributes: making it from keywords, comparing, describing, copying and
// pickling it. One function each, for all record types.
#pragma once

#include "records/RecordObject.hpp"

#include <pybind11/pybind11.h>

namespace vorlinkit::python {

/// Assigns attributes as `record.name = value` does, in the order of `values`. 0, or -1 with a TypeError that names the
/// attribute (or those whose names are nearest).
int assignAttributes(PyObject* self, PyObject* values);

/// Gives a new class its comparison, description, copies and pickling. Throws pybind11::error_already_set.
void addRecordMethods(PyTypeObject& recordClass);

/// Puts the function into the module with which pickled records are made again. Throws pybind11::error_already_set.
void registerRebuild(const pybind11::module_& module);

} // namespace vorlinkit::python
