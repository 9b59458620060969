// Reads records from payload bytes, field by field as their layouts declare. Reads straight from the
// caller's bytes, never past their end; allocates only what strings and lists hold.
#pragma once

#include "BigEndian.hpp"
#include "Layout.hpp"
#include "ReadFailure.hpp"
#include "UuidText.hpp"

#include <cstring>
#include <expected>
#include <span>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace vorlinkit::commands {

/// The bytes that have not been read yet.
struct PayloadCursor {
  const std::byte* at;
  const std::byte* end;

  std::size_t remaining() const noexcept { return static_cast<std::size_t>(end - at); }
};

/// The failure when a number of type Value does not fit into what remains. A 64-bit number is read as two
/// halves, so it has no failure of its own.
template <class Value> consteval ReadFailure shortage() {
  if constexpr (sizeof(Value) == 1)
    return ReadFailure::NoUint8;
  else if constexpr (sizeof(Value) == 2)
    return ReadFailure::NoUint16;
  else
    return ReadFailure::NoUint32;
}

template <class Field> struct FieldShortage;
template <auto Member> struct FieldShortage<Number<Member>> {
  static constexpr ReadFailure value = shortage<value_of<Member>>();
};
template <auto Member, const FieldCodedValues& Table> struct FieldShortage<Coded<Member, Table>> {
  static constexpr ReadFailure value = shortage<value_of<Member>>();
};
template <auto Member> struct FieldShortage<Uuid<Member>> {
  static constexpr ReadFailure value = ReadFailure::NoUuid;
};

// -- records of fixed size: one check for all fields ------------------------------------------------------

template <auto Member, class Record> void load_field(Number<Member>, const std::byte*& from, Record& record) {
  record.*Member = load_big_endian<value_of<Member>>(from);
  from += sizeof(value_of<Member>);
}

template <auto Member, const FieldCodedValues& Table, class Record>
void load_field(Coded<Member, Table>, const std::byte*& from, Record& record) {
  load_field(Number<Member>{}, from, record);
}

template <auto Member, class Record> void load_field(Uuid<Member>, const std::byte*& from, Record& record) {
  record.*Member = uuid_text(from);
  from += 16;
}

template <class Record, class... Fields>
void load_fields(FieldList<Fields...>, const std::byte* from, Record& record) {
  (load_field(Fields{}, from, record), ...);
}

/// Which field of a fixed-size record is the first that `remaining` bytes cannot hold.
template <class... Fields> ReadFailure first_shortage(FieldList<Fields...>, std::size_t remaining) noexcept {
  auto failure = ReadFailure::None;
  std::size_t needed = 0;
  static_cast<void>(((needed += wire_size(Fields{}).least,
                      needed > remaining ? (failure = FieldShortage<Fields>::value, true) : false) ||
                     ...));
  return failure;
}

// -- records of any size -----------------------------------------------------------------------------------
// `outer` are the enclosing records, inmost first: a variant's discriminator may stand in one of them.

template <class Record, class... Outer>
ReadFailure read_record(PayloadCursor& cursor, Record& record, const Outer&... outer);

template <class Record, class... Outer, class... Fields>
ReadFailure read_fields(FieldList<Fields...>, PayloadCursor& cursor, Record& record, const Outer&... outer) {
  auto failure = ReadFailure::None;
  static_cast<void>((((failure = read_field(Fields{}, cursor, record, outer...)) == ReadFailure::None) && ...));
  return failure;
}

template <auto Member, class Record, class... Outer>
ReadFailure read_field(Number<Member>, PayloadCursor& cursor, Record& record, const Outer&...) {
  using Value = value_of<Member>;
  if (cursor.remaining() < sizeof(Value)) [[unlikely]]
    return shortage<Value>();
  load_field(Number<Member>{}, cursor.at, record);
  return ReadFailure::None;
}

template <auto Member, const FieldCodedValues& Table, class Record, class... Outer>
ReadFailure read_field(Coded<Member, Table>, PayloadCursor& cursor, Record& record, const Outer&...) {
  return read_field(Number<Member>{}, cursor, record);
}

template <auto Member, class Record, class... Outer>
ReadFailure read_field(Uuid<Member> field, PayloadCursor& cursor, Record& record, const Outer&...) {
  if (cursor.remaining() < 16) [[unlikely]]
    return ReadFailure::NoUuid;
  load_field(field, cursor.at, record);
  return ReadFailure::None;
}

inline ReadFailure read_text(PayloadCursor& cursor, std::string& text) {
  const auto length = cursor.remaining();
  const void* zero = length ? std::memchr(cursor.at, 0, length) : nullptr;
  if (!zero) [[unlikely]]
    return ReadFailure::NoTerminator;
  const auto* terminator = static_cast<const std::byte*>(zero);
  text.assign(reinterpret_cast<const char*>(cursor.at), static_cast<std::size_t>(terminator - cursor.at));
  cursor.at = terminator + 1;
  return ReadFailure::None;
}

template <auto Member, class Record, class... Outer>
ReadFailure read_field(Text<Member>, PayloadCursor& cursor, Record& record, const Outer&...) {
  return read_text(cursor, record.*Member);
}

/// A count that promises more items than the remaining bytes can hold fails for certain; this finds at
/// which field, in a single item, so that the promise never costs memory.
template <class Item, class... Outer>
[[gnu::noinline]] ReadFailure run_out(PayloadCursor& cursor, const Outer&... outer) {
  if constexpr (fixed_size<Item>() != 0) {
    return first_shortage(typename Layout<Item>::Fields{}, cursor.remaining() % fixed_size<Item>());
  } else {
    auto failure = ReadFailure::None;
    Item item;
    while (failure == ReadFailure::None)
      failure = read_record(cursor, item, outer...);
    return failure;
  }
}

template <class Item> void load_items(const std::byte* from, std::size_t count, std::vector<Item>& items) {
  if constexpr (sizeof(Item) == 1 && std::is_trivially_copyable_v<Item>) {
    // Bytes on the wire are bytes in memory: one allocation and one copy.
    const auto* first = reinterpret_cast<const Item*>(from);
    items.assign(first, first + count);
  } else {
    items.resize(count);
    for (auto& item : items) {
      load_fields(typename Layout<Item>::Fields{}, from, item);
      from += fixed_size<Item>();
    }
  }
}

template <auto Member, auto Count, class Record, class... Outer>
ReadFailure read_field(Items<Member, Count>, PayloadCursor& cursor, Record& record, const Outer&... outer) {
  auto& items = record.*Member;
  using Item = typename value_of<Member>::value_type;
  const auto promised = record.*Count;
  if (promised > cursor.remaining() / least_size<Item>()) [[unlikely]]
    return run_out<Item>(cursor, record, outer...);
  const auto count = static_cast<std::size_t>(promised);
  if constexpr (fixed_size<Item>() != 0) {
    load_items(cursor.at, count, items);
    cursor.at += count * fixed_size<Item>();
  } else {
    items.resize(count);
    for (auto& item : items)
      if (const auto failure = read_record(cursor, item, record, outer...); failure != ReadFailure::None) [[unlikely]]
        return failure;
  }
  return ReadFailure::None;
}

template <std::uint64_t... Values> constexpr bool selects(When<Values...>, std::uint64_t value) noexcept {
  return ((value == Values) || ...);
}

template <class... Whens, class Variant, class... Outer, std::size_t... I>
ReadFailure read_chosen(std::index_sequence<I...>, std::uint64_t value, PayloadCursor& cursor, Variant& variant,
                        const Outer&... outer) {
  auto failure = ReadFailure::UnknownVariant;
  static_cast<void>(
      ((selects(Whens{}, value) && (failure = read_record(cursor, variant.template emplace<I>(), outer...), true)) ||
       ...));
  return failure;
}

/// The record of type Holder among those that enclose each other.
template <class Holder, class First, class... Rest> const Holder& enclosing(const First& first, const Rest&... rest) {
  if constexpr (std::is_same_v<Holder, First>)
    return first;
  else
    return enclosing<Holder>(rest...);
}

template <auto Member, auto On, class... Whens, class Record, class... Outer>
ReadFailure read_field(Choice<Member, On, Whens...>, PayloadCursor& cursor, Record& record, const Outer&... outer) {
  const std::uint64_t value = enclosing<record_of<On>>(record, outer...).*On;
  return read_chosen<Whens...>(std::index_sequence_for<Whens...>{}, value, cursor, record.*Member, record, outer...);
}

/// The type of the number that a record begins with.
template <class Fields> struct LeadingNumber;
template <auto Member, class... Rest> struct LeadingNumber<FieldList<Number<Member>, Rest...>> {
  using type = value_of<Member>;
};
template <auto Member, const FieldCodedValues& Table, class... Rest>
struct LeadingNumber<FieldList<Coded<Member, Table>, Rest...>> {
  using type = value_of<Member>;
};

template <auto Member, class... Whens, class Record, class... Outer>
ReadFailure read_field(LeadingChoice<Member, Whens...>, PayloadCursor& cursor, Record& record, const Outer&... outer) {
  using First = std::variant_alternative_t<0, value_of<Member>>;
  using Value = typename LeadingNumber<typename Layout<First>::Fields>::type;
  if (cursor.remaining() < sizeof(Value)) [[unlikely]]
    return shortage<Value>();
  // Only looked at: the alternative begins with this number and reads it as its first field.
  const std::uint64_t value = load_big_endian<Value>(cursor.at);
  return read_chosen<Whens...>(std::index_sequence_for<Whens...>{}, value, cursor, record.*Member, record, outer...);
}

template <class Record, class... Outer>
ReadFailure read_record(PayloadCursor& cursor, Record& record, const Outer&... outer) {
  using Fields = typename Layout<Record>::Fields;
  if constexpr (constexpr auto size = fixed_size<Record>(); size != 0) {
    if (cursor.remaining() < size) [[unlikely]]
      return first_shortage(Fields{}, cursor.remaining());
    load_fields(Fields{}, cursor.at, record);
    cursor.at += size;
    return ReadFailure::None;
  } else {
    return read_fields(Fields{}, cursor, record, outer...);
  }
}

/// Reads one message; bytes behind its last field are ignored.
template <class Message> std::expected<Message, Error> decode(std::span<const std::byte> payload) {
  std::expected<Message, Error> result;
  PayloadCursor cursor{payload.data(), payload.data() + payload.size()};
  if (const auto failure = read_record(cursor, *result); failure != ReadFailure::None) [[unlikely]]
    result = std::unexpected(decode_error(failure));
  return result;
}

} // namespace vorlinkit::commands
