// The vocabulary in which generated layouts declare a record: its fields in wire order, each with its kind
// and its place in the struct. Nothing here acts; PayloadReader, PayloadWriter and JsonRenderer do.
//
//   template <> struct Layout<GetAttachedMotorsResponse> {
//     using R = GetAttachedMotorsResponse;
//     using Fields = FieldList<Coded<&R::command_error, getAttachedMotorsCommandErrorTable>,
//                              Text<&R::automated_device_id>, Number<&R::number_of_motors>,
//                              Items<&R::list_of_motors, &R::number_of_motors>>;
//     static constexpr std::string_view keys[] = {"CommandError", "AutomatedDeviceID", "NumberOfMotors",
//     "listOfMotors"};
//   };
#pragma once

#include <vorlinkit/commands/FieldCodedValues.hpp>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace vorlinkit::commands {

/// Specialised by the generated code for every record of the catalogue.
template <typename Record> struct Layout;

template <typename... Fields> struct FieldList {};

namespace detail {
template <typename Member> struct MemberOf;
template <typename V, typename R> struct MemberOf<V R::* const> {
  using Value = V;
  using Record = R;
};
} // namespace detail

template <auto Member> using ValueOf = typename detail::MemberOf<const decltype(Member)>::Value;
template <auto Member> using RecordOf = typename detail::MemberOf<const decltype(Member)>::Record;

/// What a field is. The templates that act on fields tell them apart by this alone.
enum class FieldKind { Number, Coded, Text, Uuid, Items, Choice, LeadingChoice };

/// An unsigned integer, as wide on the wire as in the struct.
template <auto Member> struct Number {
  static constexpr auto kind = FieldKind::Number;
  static constexpr auto member = Member;
};
/// A number whose codes have texts; `Table` is its FieldCodedValues.
template <auto Member, const FieldCodedValues& Table> struct Coded {
  static constexpr auto kind = FieldKind::Coded;
  static constexpr auto member = Member;
  static constexpr const FieldCodedValues& table = Table;
};
/// Bytes that end at the first 0.
template <auto Member> struct Text {
  static constexpr auto kind = FieldKind::Text;
  static constexpr auto member = Member;
};
/// 16 bytes on the wire, held as text of 36 characters.
template <auto Member> struct Uuid {
  static constexpr auto kind = FieldKind::Uuid;
  static constexpr auto member = Member;
};
/// As many records as the number `Count`, read earlier in the same record, says.
template <auto Member, auto Count> struct Items {
  static constexpr auto kind = FieldKind::Items;
  static constexpr auto member = Member;
  static constexpr auto count = Count;
};

/// The discriminator values that select one alternative.
template <std::uint64_t... Values> struct When {};
template <typename... Each> struct WhenList {};

/// One of several records. `On` is the number that chooses, a member of a record that was read earlier.
/// The Whens stand in the order of the alternatives of the std::variant.
template <auto Member, auto On, typename... Each> struct Choice {
  static constexpr auto kind = FieldKind::Choice;
  static constexpr auto member = Member;
  static constexpr auto on = On;
  using Whens = WhenList<Each...>;
};
/// The same, where the number that chooses is the first field of every alternative.
template <auto Member, typename... Each> struct LeadingChoice {
  static constexpr auto kind = FieldKind::LeadingChoice;
  static constexpr auto member = Member;
  using Whens = WhenList<Each...>;
};

constexpr bool isNumber(FieldKind kind) { return kind == FieldKind::Number || kind == FieldKind::Coded; }
constexpr bool isChoice(FieldKind kind) { return kind == FieldKind::Choice || kind == FieldKind::LeadingChoice; }

/// The type of a field's member in its struct.
template <typename Field> using Held = ValueOf<Field::member>;

// -- sizes on the wire, known when compiling ------------------------------------------------------------

/// The least bytes of a field or record on the wire, and whether it always has just those.
struct WireSize {
  std::size_t least;
  bool fixed;
};

template <typename Record> consteval std::size_t leastSize();

namespace detail {
template <typename Variant> struct AlternativesOf;
template <template <typename...> typename Variant, typename... Alternatives>
struct AlternativesOf<Variant<Alternatives...>> {
  static consteval std::size_t least() {
    std::size_t result = SIZE_MAX;
    ((result = leastSize<Alternatives>() < result ? leastSize<Alternatives>() : result), ...);
    return result;
  }
};

template <typename Field> consteval WireSize fieldSize() {
  if constexpr (isNumber(Field::kind))
    return {sizeof(Held<Field>), true};
  else if constexpr (Field::kind == FieldKind::Uuid)
    return {16, true};
  else if constexpr (Field::kind == FieldKind::Text)
    return {1, false};
  else if constexpr (Field::kind == FieldKind::Items)
    return {0, false};
  else
    return {AlternativesOf<Held<Field>>::least(), false};
}

template <typename... Fields> consteval WireSize totalSize(FieldList<Fields...>) {
  return {(std::size_t{0} + ... + fieldSize<Fields>().least), (fieldSize<Fields>().fixed && ...)};
}
template <typename Record> inline constexpr WireSize recordSize = totalSize(typename Layout<Record>::Fields{});
} // namespace detail

/// No record on the wire is shorter than this; never 0, as no record is without fields.
template <typename Record> consteval std::size_t leastSize() {
  static_assert(detail::recordSize<Record>.least > 0, "items without bytes would let a count promise anything");
  return detail::recordSize<Record>.least;
}

/// The size of a record that always has the same, otherwise 0.
template <typename Record> consteval std::size_t fixedSize() {
  return detail::recordSize<Record>.fixed ? detail::recordSize<Record>.least : 0;
}

} // namespace vorlinkit::commands
