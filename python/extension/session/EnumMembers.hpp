#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <cstddef>

namespace vorlinkit::python {

/// The member objects of a bound enumeration whose values count up from 0, so that a callback is given
/// the member itself (`direction is FrameDirection.Rx`) at the cost of a reference. Filled while the
/// module is imported, kept for the life of the process.
template <typename Enum, std::size_t Count> class EnumMembers {
public:
  static void fill(const pybind11::object& enumeration) {
    for (const auto& member : enumeration.attr("__members__").attr("values")())
      members.at(pybind11::int_(pybind11::reinterpret_borrow<pybind11::object>(member)).cast<std::size_t>()) =
          member.inc_ref();
  }
  static pybind11::object of(Enum value) {
    return pybind11::reinterpret_borrow<pybind11::object>(members.at(static_cast<std::size_t>(value)));
  }

private:
  static inline std::array<pybind11::handle, Count> members;
};

} // namespace vorlinkit::python
