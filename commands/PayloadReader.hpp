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
template <typename Value> consteval ReadFailure shortage() {
  if constexpr (sizeof(Value) == 1)
    return ReadFailure::NoUint8;
  else if constexpr (sizeof(Value) == 2)
    return ReadFailure::NoUint16;
  else
    return ReadFailure::NoUint32;
}

// -- records of fixed size: one check for all fields ------------------------------------------------------

template <typename Field, typename Record> void loadField(const std::byte*& from, Record& record) {
  if constexpr (Field::kind == FieldKind::Uuid) {
    record.*Field::member = uuidText(from);
    from += 16;
  } else {
    using Value = Held<Field>;
    record.*Field::member = loadBigEndian<Value>(from);
    from += sizeof(Value);
  }
}

template <typename Record, typename... Fields>
void loadFields(FieldList<Fields...>, const std::byte* from, Record& record) {
  (loadField<Fields>(from, record), ...);
}

/// Whether the bytes run out at this field of a fixed-size record; `needed` counts up to its end.
template <typename Field> bool runsOut(std::size_t& needed, std::size_t remaining, ReadFailure& failure) noexcept {
  if constexpr (Field::kind == FieldKind::Uuid)
    failure = ReadFailure::NoUuid;
  else
    failure = shortage<Held<Field>>();
  needed += detail::fieldSize<Field>().least;
  return needed > remaining;
}

/// Which field of a fixed-size record is the first that `remaining` bytes cannot hold.
template <typename... Fields> ReadFailure firstShortage(FieldList<Fields...>, std::size_t remaining) noexcept {
  auto failure = ReadFailure::None;
  std::size_t needed = 0;
  static_cast<void>((runsOut<Fields>(needed, remaining, failure) || ...));
  return failure;
}

// -- records of any size -----------------------------------------------------------------------------------
// `outer` are the enclosing records, inmost first: a variant's discriminator may stand in one of them.

template <typename Record, typename... Outer>
ReadFailure readRecord(PayloadCursor& cursor, Record& record, const Outer&... outer);

inline ReadFailure readText(PayloadCursor& cursor, std::string& text) {
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
template <typename Item> [[gnu::noinline]] std::vector<Item> copyBytes(const std::byte* from, std::size_t count) {
  static_assert(sizeof(Item) == 1 && std::is_trivially_copyable_v<Item>);
  const auto* first = reinterpret_cast<const Item*>(from);
  return std::vector<Item>(first, first + count);
}

template <typename Item> std::vector<Item> loadItems(const std::byte* from, std::size_t count) {
  if constexpr (sizeof(Item) == 1) {
    return copyBytes<Item>(from, count);
  } else {
    std::vector<Item> items(count);
    for (auto& item : items) {
      loadFields(typename Layout<Item>::Fields{}, from, item);
      from += fixedSize<Item>();
    }
    return items;
  }
}

template <typename Item, typename... Outer>
ReadFailure readItems(PayloadCursor& cursor, std::uint64_t promised, std::vector<Item>& items, const Outer&... outer) {
  // A count may promise more items than the remaining bytes can hold, and then fails for certain; it is
  // not allowed to cost memory for more than those bytes.
  const std::size_t most = cursor.remaining() / leastSize<Item>();
  if constexpr (fixedSize<Item>() != 0) {
    if (promised > most) [[unlikely]]
      return firstShortage(typename Layout<Item>::Fields{}, cursor.remaining() % fixedSize<Item>());
    const auto count = static_cast<std::size_t>(promised);
    items = loadItems<Item>(cursor.at, count);
    cursor.at += count * fixedSize<Item>();
  } else {
    // One more than fits is enough to reach the field at which the bytes run out.
    items = std::vector<Item>(promised > most ? most + 1 : static_cast<std::size_t>(promised));
    for (auto& item : items)
      if (const auto failure = readRecord(cursor, item, outer...); failure != ReadFailure::None) [[unlikely]]
        return failure;
  }
  return ReadFailure::None;
}

template <std::uint64_t... Values> constexpr bool selects(When<Values...>, std::uint64_t value) noexcept {
  return ((value == Values) || ...);
}

template <typename... Whens, typename Variant, std::size_t... I, typename... Outer>
ReadFailure readChosen(WhenList<Whens...>, std::index_sequence<I...>, std::uint64_t value, PayloadCursor& cursor,
                       Variant& variant, const Outer&... outer) {
  auto failure = ReadFailure::UnknownVariant;
  static_cast<void>(
      ((selects(Whens{}, value) && (failure = readRecord(cursor, variant.template emplace<I>(), outer...), true)) ||
       ...));
  return failure;
}

/// The record of type Holder among those that enclose each other.
template <typename Holder, typename First, typename... Rest>
const Holder& enclosing(const First& first, const Rest&... rest) {
  if constexpr (std::is_same_v<Holder, First>)
    return first;
  else
    return enclosing<Holder>(rest...);
}

/// The type of the number that a record begins with.
template <typename Fields> struct LeadingNumber;
template <typename First, typename... Rest> struct LeadingNumber<FieldList<First, Rest...>> {
  using Type = Held<First>;
};

template <typename Field, typename Record, typename... Outer>
ReadFailure readChoice(PayloadCursor& cursor, Record& record, const Outer&... outer) {
  auto& variant = record.*Field::member;
  using Variant = Held<Field>;
  std::uint64_t value;
  if constexpr (Field::kind == FieldKind::Choice) {
    value = enclosing<RecordOf<Field::on>>(record, outer...).*Field::on;
  } else {
    // Only looked at: the alternative begins with this number and reads it as its first field.
    using Number = typename LeadingNumber<typename Layout<std::variant_alternative_t<0, Variant>>::Fields>::Type;
    if (cursor.remaining() < sizeof(Number)) [[unlikely]]
      return shortage<Number>();
    value = loadBigEndian<Number>(cursor.at);
  }
  constexpr auto indices = std::make_index_sequence<std::variant_size_v<Variant>>{};
  return readChosen(typename Field::Whens{}, indices, value, cursor, variant, record, outer...);
}

template <typename Field, typename Record, typename... Outer>
ReadFailure readField(PayloadCursor& cursor, Record& record, const Outer&... outer) {
  if constexpr (isNumber(Field::kind)) {
    if (cursor.remaining() < sizeof(Held<Field>)) [[unlikely]]
      return shortage<Held<Field>>();
    loadField<Field>(cursor.at, record);
    return ReadFailure::None;
  } else if constexpr (Field::kind == FieldKind::Text) {
    return readText(cursor, record.*Field::member);
  } else if constexpr (Field::kind == FieldKind::Uuid) {
    if (cursor.remaining() < 16) [[unlikely]]
      return ReadFailure::NoUuid;
    loadField<Field>(cursor.at, record);
    return ReadFailure::None;
  } else if constexpr (Field::kind == FieldKind::Items) {
    return readItems(cursor, record.*Field::count, record.*Field::member, record, outer...);
  } else {
    return readChoice<Field>(cursor, record, outer...);
  }
}

template <typename Record, typename... Fields, typename... Outer>
ReadFailure readFields(FieldList<Fields...>, PayloadCursor& cursor, Record& record, const Outer&... outer) {
  auto failure = ReadFailure::None;
  static_cast<void>((((failure = readField<Fields>(cursor, record, outer...)) == ReadFailure::None) && ...));
  return failure;
}

template <typename Record, typename... Outer>
ReadFailure readRecord(PayloadCursor& cursor, Record& record, const Outer&... outer) {
  using Fields = typename Layout<Record>::Fields;
  if constexpr (constexpr auto size = fixedSize<Record>(); size != 0) {
    if (cursor.remaining() < size) [[unlikely]]
      return firstShortage(Fields{}, cursor.remaining());
    loadFields(Fields{}, cursor.at, record);
    cursor.at += size;
    return ReadFailure::None;
  } else {
    return readFields(Fields{}, cursor, record, outer...);
  }
}

/// Reads one message; bytes behind its last field are ignored.
template <typename Message> std::expected<Message, Error> decode(std::span<const std::byte> payload) {
  std::expected<Message, Error> result;
  PayloadCursor cursor{payload.data(), payload.data() + payload.size()};
  if (const auto failure = readRecord(cursor, *result); failure != ReadFailure::None) [[unlikely]]
    result = std::unexpected(decodeError(failure));
  return result;
}

} // namespace vorlinkit::commands
