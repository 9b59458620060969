// What the binding library is told about our types. Included wherever one of them is converted.
#pragma once

#include <vorlinkit/FrameDirection.hpp>
#include <vorlinkit/IVorlinLogger.hpp>
#include <vorlinkit/SessionConfig.hpp>
#include <vorlinkit/commands/FieldCodedValues.hpp>

#include <pybind11/pybind11.h>

#include <memory>

namespace vorlinkit::python {

class PyEventQueue;
class PySession;

/// Refuses an object whose `__init__` has not run, for every argument of a bound type, `self` included. The
/// binding library would make up memory for it that nobody has initialised.
template <typename Caster> class Initialised : public Caster {
public:
  bool load(pybind11::handle source, bool convert) {
    if (source && this->typeinfo && PyObject_TypeCheck(source.ptr(), this->typeinfo->type)) {
      auto* const instance = reinterpret_cast<pybind11::detail::instance*>(source.ptr());
      const auto slot = instance->get_value_and_holder(this->typeinfo, false);
      if (!(slot.inst ? slot.holder_constructed() : isInitialised(instance)))
        throw pybind11::type_error(std::string(this->typeinfo->type->tp_name) +
                                   ".__init__() must be called before the object is used");
    }
    return Caster::load(source, convert);
  }

private:
  /// An object of a bound type that derives from this one.
  static bool isInitialised(pybind11::detail::instance* instance) {
    for (const auto& slot : pybind11::detail::values_and_holders(instance))
      if (!slot.holder_constructed()) return false;
    return true;
  }
};

template <typename Bound> using InitialisedObject = Initialised<pybind11::detail::type_caster_base<Bound>>;
template <typename Bound>
using InitialisedHolder = Initialised<pybind11::detail::copyable_holder_caster<Bound, std::shared_ptr<Bound>>>;

} // namespace vorlinkit::python

namespace pybind11::detail {

namespace bound = vorlinkit::python;

template <> class type_caster<vorlinkit::LogLevel> : public bound::InitialisedObject<vorlinkit::LogLevel> {};
template <>
class type_caster<vorlinkit::FrameDirection> : public bound::InitialisedObject<vorlinkit::FrameDirection> {};
template <>
class type_caster<vorlinkit::commands::CodedValueKind>
    : public bound::InitialisedObject<vorlinkit::commands::CodedValueKind> {};
template <>
class type_caster<vorlinkit::commands::FieldCodedValue>
    : public bound::InitialisedObject<vorlinkit::commands::FieldCodedValue> {};
template <>
class type_caster<vorlinkit::commands::FieldCodedValues>
    : public bound::InitialisedObject<vorlinkit::commands::FieldCodedValues> {};
template <> class type_caster<vorlinkit::SessionConfig> : public bound::InitialisedObject<vorlinkit::SessionConfig> {};
template <> class type_caster<vorlinkit::IVorlinLogger> : public bound::InitialisedObject<vorlinkit::IVorlinLogger> {};
template <>
class type_caster<std::shared_ptr<vorlinkit::IVorlinLogger>>
    : public bound::InitialisedHolder<vorlinkit::IVorlinLogger> {};
template <> class type_caster<bound::PyEventQueue> : public bound::InitialisedObject<bound::PyEventQueue> {};
template <> class type_caster<bound::PySession> : public bound::InitialisedObject<bound::PySession> {};

} // namespace pybind11::detail
