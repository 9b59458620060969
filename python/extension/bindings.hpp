// What the module's initialiser registers, in this order. Interpreter lock held.
#pragma once

#include "session/BoundTypes.hpp"

#include <pybind11/pybind11.h>

namespace vorlinkit::python {

void registerLogger(pybind11::module_& module);      // LogLevel, IVorlinLogger
void registerConfig(pybind11::module_& module);      // SessionConfig
void registerCodedValues(pybind11::module_& module); // CodedValueKind, FrameDirection, FieldCodedValue(s)
void registerEventQueue(pybind11::module_& module);  // _EventQueue, _EventLogger
void registerSession(pybind11::module_& module);     // VorlinSession
void registerCommandBlocks(pybind11::module_& module);

/// A coded field's table as a FieldCodedValues of Python.
pybind11::object toPython(commands::FieldCodedValues table);

} // namespace vorlinkit::python
