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

// -- records of fixed size: one check for all fields ------------------------------------------------------

template <class Field, class Record> void load_field(const std::byte*& from, Record& record) {
  if constexpr (Field::kind == FieldKind::Uuid) {
    record.*Field::member = uuid_text(from);
    from += 16;
  } else {
    using Value = Held<Field>;
    record.*Field::member = load_big_endian<Value>(from);
    from += sizeof(Value);
  }
}

template <class Record, class... Fields> void load_fields(FieldList<Fields...>, const std::byte* from, Record& record) {
  (load_field<Fields>(from, record), ...);
}

/// Whether the bytes run out at this field of a fixed-size record; `needed` counts up to its end.
template <class Field> bool runs_out(std::size_t& needed, std::size_t remaining, ReadFailure& failure) noexcept {
  if constexpr (Field::kind == FieldKind::Uuid)
    failure = ReadFailure::NoUuid;
  else
    failure = shortage<Held<Field>>();
  needed += detail::field_size<Field>().least;
  return needed > remaining;
}

/// Which field of a fixed-size record is the first that `remaining` bytes cannot hold.
template <class... Fields> ReadFailure first_shortage(FieldList<Fields...>, std::size_t remaining) noexcept {
  auto failure = ReadFailure::None;
  std::size_t needed = 0;
  static_cast<void>((runs_out<Fields>(needed, remaining, failure) || ...));
  return failure;
}

// -- records of any size -----------------------------------------------------------------------------------
// `outer` are the enclosing records, inmost first: a variant's discriminator may stand in one of them.

template <class Record, class... Outer>
ReadFailure read_record(PayloadCursor& cursor, Record& record, const Outer&... outer);

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

/// Bytes on the wire are bytes in memory. On its own, so that the compiler sees fresh memory and copies
/// it in one go.
template <class Item> [[gnu::noinline]] std::vector<Item> copy_bytes(const std::byte* from, std::size_t count) {
  static_assert(sizeof(Item) == 1 && std::is_trivially_copyable_v<Item>);
  const auto* first = reinterpret_cast<const Item*>(from);
  return std::vector<Item>(first, first + count);
}

template <class Item> std::vector<Item> load_items(const std::byte* from, std::size_t count) {
  if constexpr (sizeof(Item) == 1) {
    return copy_bytes<Item>(from, count);
  } else {
    std::vector<Item> items(count);
    for (auto& item : items) {
      load_fields(typename Layout<Item>::Fields{}, from, item);
      from += fixed_size<Item>();
    }
    return items;
  }
}

template <class Item, class... Outer>
ReadFailure read_items(PayloadCursor& cursor, std::uint64_t promised, std::vector<Item>& items, const Outer&... outer) {
  // A count may promise more items than the remaining bytes can hold, and then fails for certain; it is
  // not allowed to cost memory for more than those bytes.
  const std::size_t most = cursor.remaining() / least_size<Item>();
  if constexpr (fixed_size<Item>() != 0) {
    if (promised > most) [[unlikely]]
      return first_shortage(typename Layout<Item>::Fields{}, cursor.remaining() % fixed_size<Item>());
    const auto count = static_cast<std::size_t>(promised);
    items = load_items<Item>(cursor.at, count);
    cursor.at += count * fixed_size<Item>();
  } else {
    // One more than fits is enough to reach the field at which the bytes run out.
    items = std::vector<Item>(promised > most ? most + 1 : static_cast<std::size_t>(promised));
    for (auto& item : items)
      if (const auto failure = read_record(cursor, item, outer...); failure != ReadFailure::None) [[unlikely]]
        return failure;
  }
  return ReadFailure::None;
}

template <std::uint64_t... Values> constexpr bool selects(When<Values...>, std::uint64_t value) noexcept {
  return ((value == Values) || ...);
}

template <class... Whens, class Variant, std::size_t... I, class... Outer>
ReadFailure read_chosen(WhenList<Whens...>, std::index_sequence<I...>, std::uint64_t value, PayloadCursor& cursor,
                        Variant& variant, const Outer&... outer) {
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

/// The type of the number that a record begins with.
template <class Fields> struct LeadingNumber;
template <class First, class... Rest> struct LeadingNumber<FieldList<First, Rest...>> {
  using type = Held<First>;
};

template <class Field, class Record, class... Outer>
ReadFailure read_choice(PayloadCursor& cursor, Record& record, const Outer&... outer) {
  auto& variant = record.*Field::member;
  using Variant = Held<Field>;
  std::uint64_t value;
  if constexpr (Field::kind == FieldKind::Choice) {
    value = enclosing<record_of<Field::on>>(record, outer...).*Field::on;
  } else {
    // Only looked at: the alternative begins with this number and reads it as its first field.
    using Number = typename LeadingNumber<typename Layout<std::variant_alternative_t<0, Variant>>::Fields>::type;
    if (cursor.remaining() < sizeof(Number)) [[unlikely]]
      return shortage<Number>();
    value = load_big_endian<Number>(cursor.at);
  }
  constexpr auto indices = std::make_index_sequence<std::variant_size_v<Variant>>{};
  return read_chosen(typename Field::whens{}, indices, value, cursor, variant, record, outer...);
}

template <class Field, class Record, class... Outer>
ReadFailure read_field(PayloadCursor& cursor, Record& record, const Outer&... outer) {
  if constexpr (is_number(Field::kind)) {
    if (cursor.remaining() < sizeof(Held<Field>)) [[unlikely]]
      return shortage<Held<Field>>();
    load_field<Field>(cursor.at, record);
    return ReadFailure::None;
  } else if constexpr (Field::kind == FieldKind::Text) {
    return read_text(cursor, record.*Field::member);
  } else if constexpr (Field::kind == FieldKind::Uuid) {
    if (cursor.remaining() < 16) [[unlikely]]
      return ReadFailure::NoUuid;
    load_field<Field>(cursor.at, record);
    return ReadFailure::None;
  } else if constexpr (Field::kind == FieldKind::Items) {
    return read_items(cursor, record.*Field::count, record.*Field::member, record, outer...);
  } else {
    return read_choice<Field>(cursor, record, outer...);
  }
}

template <class Record, class... Fields, class... Outer>
ReadFailure read_fields(FieldList<Fields...>, PayloadCursor& cursor, Record& record, const Outer&... outer) {
  auto failure = ReadFailure::None;
  static_cast<void>((((failure = read_field<Fields>(cursor, record, outer...)) == ReadFailure::None) && ...));
  return failure;
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
