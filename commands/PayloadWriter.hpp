// Writes records as payload bytes, field by field as their layouts declare: the size is added up first,
// so that there is one allocation, and the bytes are then stored without further checks. Counts are
// written as they stand; it is the caller's business that they agree with the lists.
#pragma once

#include "BigEndian.hpp"
#include "Layout.hpp"

#include <vorlinkit/Error.hpp>
#include <vorlinkit/commands/PayloadMemory.hpp>

#include <cstring>
#include <expected>
#include <string>
#include <variant>
#include <vector>

namespace vorlinkit::commands {

// -- sizes ----------------------------------------------------------------------------------------------------

/// The bytes of one record beyond those that its kind always has.
template <class Record> std::size_t extra_size(const Record& record);

template <class Variant, std::size_t... I>
std::size_t extra_variant_size(std::index_sequence<I...>, const Variant& variant) {
  std::size_t size = 0;
  const auto add = [&size](const auto& record) {
    size = least_size<std::remove_cvref_t<decltype(record)>>() + extra_size(record);
    return true;
  };
  static_cast<void>(((variant.index() == I && add(*std::get_if<I>(&variant))) || ...));
  return size - detail::alternatives<Variant>::least();
}

template <class Field, class Record> std::size_t extra_field_size(const Record& record) {
  if constexpr (Field::kind == FieldKind::Text) {
    return (record.*Field::member).size();
  } else if constexpr (Field::kind == FieldKind::Items) {
    using Item = typename Held<Field>::value_type;
    std::size_t size = (record.*Field::member).size() * least_size<Item>();
    if constexpr (fixed_size<Item>() == 0)
      for (const auto& item : record.*Field::member)
        size += extra_size(item);
    return size;
  } else if constexpr (is_choice(Field::kind)) {
    constexpr auto indices = std::make_index_sequence<std::variant_size_v<Held<Field>>>{};
    return extra_variant_size(indices, record.*Field::member);
  } else {
    return 0;
  }
}

template <class Record, class... Fields> std::size_t extra_fields_size(FieldList<Fields...>, const Record& record) {
  return (std::size_t{0} + ... + extra_field_size<Fields>(record));
}

template <class Record> std::size_t extra_size(const Record& record) {
  return extra_fields_size(typename Layout<Record>::Fields{}, record);
}

// -- bytes ----------------------------------------------------------------------------------------------------

template <class Record> void write_record(std::byte*& to, const Record& record);

template <class Variant, std::size_t... I>
void write_variant(std::index_sequence<I...>, std::byte*& to, const Variant& variant) {
  static_cast<void>(((variant.index() == I && (write_record(to, *std::get_if<I>(&variant)), true)) || ...));
}

template <class Field, class Record> void write_field(std::byte*& to, const Record& record) {
  const auto& value = record.*Field::member;
  if constexpr (is_number(Field::kind)) {
    store_big_endian(to, value);
    to += sizeof value;
  } else if constexpr (Field::kind == FieldKind::Text) {
    // The string's own terminator is the one on the wire.
    std::memcpy(to, value.c_str(), value.size() + 1);
    to += value.size() + 1;
  } else if constexpr (Field::kind == FieldKind::Items) {
    for (const auto& item : value)
      write_record(to, item);
  } else {
    static_assert(is_choice(Field::kind), "identifiers in requests are strings; a uuid is only ever read");
    write_variant(std::make_index_sequence<std::variant_size_v<Held<Field>>>{}, to, value);
  }
}

template <class Record, class... Fields> void write_fields(FieldList<Fields...>, std::byte*& to, const Record& record) {
  (write_field<Fields>(to, record), ...);
}

template <class Record> void write_record(std::byte*& to, const Record& record) {
  write_fields(typename Layout<Record>::Fields{}, to, record);
}

/// The payload of one message. Never fails; the result type is that of all fallible operations.
template <class Message> std::expected<std::vector<std::byte>, Error> encode(const Message& message) {
  std::expected<std::vector<std::byte>, Error> result(std::in_place, least_size<Message>() + extra_size(message));
  auto* to = result->data();
  write_record(to, message);
  return result;
}

/// The same, into memory of the caller's.
template <class Message> std::expected<void, Error> write(const Message& message, PayloadMemory& memory) {
  auto* to = memory.allocate(least_size<Message>() + extra_size(message));
  write_record(to, message);
  return {};
}

} // namespace vorlinkit::commands
