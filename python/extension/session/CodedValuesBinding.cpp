#include "bindings.hpp"
#include "session/PySession.hpp"

#include <vorlinkit/commands/FieldCodedValues.hpp>

#include <pybind11/stl.h>

#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

using commands::CodedValueKind;
using commands::FieldCodedValue;
using commands::FieldCodedValues;

namespace {

std::vector<FieldCodedValue> copyOfRows(const FieldCodedValues& table) {
  return {table.values.begin(), table.values.end()};
}

} // namespace

py::object toPython(FieldCodedValues table) { return py::cast(std::move(table)); }

void registerCodedValues(py::module_& module) {
  py::enum_<CodedValueKind>(module, "CodedValueKind", "How a coded field is read.")
      .value("Enum", CodedValueKind::Enum, "the field holds exactly one of the listed codes")
      .value("Bitfield", CodedValueKind::Bitfield, "the field is a set of flags; each code is a flag mask")
      .export_values();

  const auto directions = py::enum_<FrameDirection>(module, "FrameDirection", "Which way a frame travels.")
                              .value("Tx", FrameDirection::Tx, "about to be written to the machine")
                              .value("Rx", FrameDirection::Rx, "just received, complete, not yet decoded")
                              .export_values();
  FrameDirections::fill(directions);

  py::class_<FieldCodedValue>(module, "FieldCodedValue",
                              "One row of a coded field's table. A copy: changing it changes no table.")
      .def_readwrite("code", &FieldCodedValue::code, "Field value or flag mask, 0 to 65535.")
      .def_property_readonly(
          "description", [](const FieldCodedValue& row) { return row.description; },
          "What the code means, in the machine's words.");

  py::class_<FieldCodedValues>(module, "FieldCodedValues", "The known codes of a coded field.")
      .def_property_readonly("values", &copyOfRows, "A new list of the rows, in the order of the protocol.")
      .def_property(
          "kind", [](const FieldCodedValues& table) { return table.kind; },
          [](FieldCodedValues& table, CodedValueKind kind) { table.kind = kind; },
          "Whether the codes are values or flags.");
}

} // namespace vorlinkit::python
