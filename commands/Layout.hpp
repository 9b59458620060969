// The vocabulary in which generated layouts declare a record: its fields in wire order, each with its kind
// and its place in the struct. Nothing here acts; PayloadReader, PayloadWriter and JsonRenderer do.
//
//   template <> struct Layout<GetAttachedMotorsResponse> {
//     using R = GetAttachedMotorsResponse;
//     using Fields = FieldList<Coded<&R::command_error, get_attached_motors_command_error_table>,
//                              Text<&R::automated_device_id>, Number<&R::number_of_motors>,
//                              Items<&R::list_of_motors, &R::number_of_motors>>;
//     static constexpr std::string_view keys[] = {"CommandError", "AutomatedDeviceID", "NumberOfMotors", "listOfMotors"};
//   };
#pragma once

#include <vorlinkit/commands/FieldCodedValues.hpp>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace vorlinkit::commands {

/// Specialised by the generated code for every record of the catalogue.
template <class Record> struct Layout;

template <class... Fields> struct FieldList {};

namespace detail {
template <class Member> struct member_of;
template <class Value, class Record> struct member_of<Value Record::*> {
  using value = Value;
  using record = Record;
};
} // namespace detail

template <auto Member> using value_of = typename detail::member_of<decltype(Member)>::value;
template <auto Member> using record_of = typename detail::member_of<decltype(Member)>::record;

/// An unsigned integer, as wide on the wire as in the struct.
template <auto Member> struct Number {};
/// A number whose codes have texts; `Table` is its FieldCodedValues.
template <auto Member, const FieldCodedValues& Table> struct Coded {};
/// Bytes that end at the first 0.
template <auto Member> struct Text {};
/// 16 bytes on the wire, held as text of 36 characters.
template <auto Member> struct Uuid {};
/// As many records as the number `Count`, read earlier in the same record, says.
template <auto Member, auto Count> struct Items {};

/// The discriminator values that select one alternative.
template <std::uint64_t... Values> struct When {};
/// One of several records. `On` is the number that chooses: a member of a record that was read earlier
/// (`Choice`), or the first field of every alternative (`LeadingChoice`). The Whens stand in the order
/// of the alternatives of the std::variant.
template <auto Member, auto On, class... Whens> struct Choice {};
template <auto Member, class... Whens> struct LeadingChoice {};

// -- sizes on the wire, known when compiling ------------------------------------------------------------

template <class Record> consteval std::size_t least_size();
template <class Record> consteval std::size_t fixed_size();

/// What all fields of one kind have in common: the least bytes on the wire, and whether it is always that.
struct WireSize {
  std::size_t least;
  bool fixed;
};

namespace detail {
template <class Variant> struct alternatives;
template <template <class...> class Variant, class... Alternatives> struct alternatives<Variant<Alternatives...>> {
  static consteval std::size_t least() {
    std::size_t result = SIZE_MAX;
    ((result = least_size<Alternatives>() < result ? least_size<Alternatives>() : result), ...);
    return result;
  }
};
} // namespace detail

template <auto Member> consteval WireSize wire_size(Number<Member>) { return {sizeof(value_of<Member>), true}; }
template <auto Member, const FieldCodedValues& Table> consteval WireSize wire_size(Coded<Member, Table>) {
  return {sizeof(value_of<Member>), true};
}
template <auto Member> consteval WireSize wire_size(Text<Member>) { return {1, false}; }
template <auto Member> consteval WireSize wire_size(Uuid<Member>) { return {16, true}; }
template <auto Member, auto Count> consteval WireSize wire_size(Items<Member, Count>) { return {0, false}; }
template <auto Member, auto On, class... Whens> consteval WireSize wire_size(Choice<Member, On, Whens...>) {
  return {detail::alternatives<value_of<Member>>::least(), false};
}
template <auto Member, class... Whens> consteval WireSize wire_size(LeadingChoice<Member, Whens...>) {
  return {detail::alternatives<value_of<Member>>::least(), false};
}

template <class... Fields> consteval WireSize total_size(FieldList<Fields...>) {
  return {(std::size_t{0} + ... + wire_size(Fields{}).least), (wire_size(Fields{}).fixed && ...)};
}

/// No record on the wire is shorter than this; never 0, as no record is without fields.
template <class Record> consteval std::size_t least_size() {
  constexpr std::size_t size = total_size(typename Layout<Record>::Fields{}).least;
  static_assert(size > 0, "an item without bytes would let a list count promise anything");
  return size;
}

/// The size of a record that always has the same, otherwise 0.
template <class Record> consteval std::size_t fixed_size() {
  constexpr WireSize size = total_size(typename Layout<Record>::Fields{});
  return size.fixed ? size.least : 0;
}

} // namespace vorlinkit::commands
