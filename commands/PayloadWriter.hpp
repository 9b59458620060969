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
template <typename Record> std::size_t extraSize(const Record& record);

template <typename Variant, std::size_t... I>
std::size_t extraVariantSize(std::index_sequence<I...>, const Variant& variant) {
  std::size_t size = 0;
  const auto add = [&size](const auto& record) {
    size = leastSize<std::remove_cvref_t<decltype(record)>>() + extraSize(record);
    return true;
  };
  static_cast<void>(((variant.index() == I && add(*std::get_if<I>(&variant))) || ...));
  return size - detail::AlternativesOf<Variant>::least();
}

template <typename Field, typename Record> std::size_t extraFieldSize(const Record& record) {
  if constexpr (Field::kind == FieldKind::Text) {
    return (record.*Field::member).size();
  } else if constexpr (Field::kind == FieldKind::Items) {
    using Item = typename Held<Field>::value_type;
    std::size_t size = (record.*Field::member).size() * leastSize<Item>();
    if constexpr (fixedSize<Item>() == 0)
      for (const auto& item : record.*Field::member)
        size += extraSize(item);
    return size;
  } else if constexpr (isChoice(Field::kind)) {
    constexpr auto indices = std::make_index_sequence<std::variant_size_v<Held<Field>>>{};
    return extraVariantSize(indices, record.*Field::member);
  } else {
    return 0;
  }
}

template <typename Record, typename... Fields> std::size_t extraFieldsSize(FieldList<Fields...>, const Record& record) {
  return (std::size_t{0} + ... + extraFieldSize<Fields>(record));
}

template <typename Record> std::size_t extraSize(const Record& record) {
  return extraFieldsSize(typename Layout<Record>::Fields{}, record);
}

// -- bytes ----------------------------------------------------------------------------------------------------

template <typename Record> void writeRecord(std::byte*& to, const Record& record);

template <typename Variant, std::size_t... I>
void writeVariant(std::index_sequence<I...>, std::byte*& to, const Variant& variant) {
  static_cast<void>(((variant.index() == I && (writeRecord(to, *std::get_if<I>(&variant)), true)) || ...));
}

template <typename Field, typename Record> void writeField(std::byte*& to, const Record& record) {
  const auto& value = record.*Field::member;
  if constexpr (isNumber(Field::kind)) {
    storeBigEndian(to, value);
    to += sizeof value;
  } else if constexpr (Field::kind == FieldKind::Text) {
    // The string's own terminator is the one on the wire.
    std::memcpy(to, value.c_str(), value.size() + 1);
    to += value.size() + 1;
  } else if constexpr (Field::kind == FieldKind::Items) {
    for (const auto& item : value)
      writeRecord(to, item);
  } else {
    static_assert(isChoice(Field::kind), "identifiers in requests are strings; a uuid is only ever read");
    writeVariant(std::make_index_sequence<std::variant_size_v<Held<Field>>>{}, to, value);
  }
}

template <typename Record, typename... Fields>
void writeFields(FieldList<Fields...>, std::byte*& to, const Record& record) {
  (writeField<Fields>(to, record), ...);
}

template <typename Record> void writeRecord(std::byte*& to, const Record& record) {
  writeFields(typename Layout<Record>::Fields{}, to, record);
}

/// The payload of one message. Never fails; the result type is that of all fallible operations.
template <typename Message> std::expected<std::vector<std::byte>, Error> encode(const Message& message) {
  std::expected<std::vector<std::byte>, Error> result(std::in_place, leastSize<Message>() + extraSize(message));
  auto* to = result->data();
  writeRecord(to, message);
  return result;
}

/// The same, into memory of the caller's.
template <typename Message> std::expected<void, Error> write(const Message& message, PayloadMemory& memory) {
  auto* to = memory.allocate(leastSize<Message>() + extraSize(message));
  writeRecord(to, message);
  return {};
}

} // namespace vorlinkit::commands
