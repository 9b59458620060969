// Writes records as payload bytes, field by field as their layouts declare: the size is added up first,
// so that there is one allocation, and the bytes are then stored without further checks. Counts are
// written as they stand; it is the caller's business that they agree with the lists.
#pragma once

#include "BigEndian.hpp"
#include "Layout.hpp"

#include <vorlinkit/Error.hpp>

#include <cstring>
#include <expected>
#include <string>
#include <variant>
#include <vector>

namespace vorlinkit::commands {

// -- sizes ----------------------------------------------------------------------------------------------------

/// The bytes of one record beyond those that its kind always has.
template <class Record> std::size_t extra_size(const Record& record);

template <class Field, class Record> std::size_t extra_field_size(Field, const Record&) { return 0; }

template <auto Member, class Record> std::size_t extra_field_size(Text<Member>, const Record& record) {
  return (record.*Member).size();
}

template <auto Member, auto Count, class Record>
std::size_t extra_field_size(Items<Member, Count>, const Record& record) {
  const auto& items = record.*Member;
  using Item = typename value_of<Member>::value_type;
  std::size_t size = items.size() * least_size<Item>();
  if constexpr (fixed_size<Item>() == 0)
    for (const auto& item : items)
      size += extra_size(item);
  return size;
}

template <class Variant, std::size_t... I>
std::size_t extra_variant_size(std::index_sequence<I...>, const Variant& variant) {
  std::size_t size = 0;
  const auto add = [&size](const auto& record) {
    using Held = std::remove_cvref_t<decltype(record)>;
    size = least_size<Held>() + extra_size(record) - detail::alternatives<Variant>::least();
    return true;
  };
  static_cast<void>(((variant.index() == I && add(*std::get_if<I>(&variant))) || ...));
  return size;
}

template <auto Member, auto On, class... Whens, class Record>
std::size_t extra_field_size(Choice<Member, On, Whens...>, const Record& record) {
  return extra_variant_size(std::index_sequence_for<Whens...>{}, record.*Member);
}

template <auto Member, class... Whens, class Record>
std::size_t extra_field_size(LeadingChoice<Member, Whens...>, const Record& record) {
  return extra_variant_size(std::index_sequence_for<Whens...>{}, record.*Member);
}

template <class Record, class... Fields>
std::size_t extra_fields_size(FieldList<Fields...>, const Record& record) {
  return (std::size_t{0} + ... + extra_field_size(Fields{}, record));
}

template <class Record> std::size_t extra_size(const Record& record) {
  return extra_fields_size(typename Layout<Record>::Fields{}, record);
}

// -- bytes ----------------------------------------------------------------------------------------------------

template <class Record> void write_record(std::byte*& to, const Record& record);

template <auto Member, class Record> void write_field(Number<Member>, std::byte*& to, const Record& record) {
  store_big_endian(to, record.*Member);
  to += sizeof(value_of<Member>);
}

template <auto Member, const FieldCodedValues& Table, class Record>
void write_field(Coded<Member, Table>, std::byte*& to, const Record& record) {
  write_field(Number<Member>{}, to, record);
}

template <auto Member, class Record> void write_field(Text<Member>, std::byte*& to, const Record& record) {
  const std::string& text = record.*Member;
  // The string's own terminator is the one on the wire.
  std::memcpy(to, text.c_str(), text.size() + 1);
  to += text.size() + 1;
}

template <auto Member, auto Count, class Record>
void write_field(Items<Member, Count>, std::byte*& to, const Record& record) {
  for (const auto& item : record.*Member)
    write_record(to, item);
}

template <class Variant, std::size_t... I>
void write_variant(std::index_sequence<I...>, std::byte*& to, const Variant& variant) {
  static_cast<void>(((variant.index() == I && (write_record(to, *std::get_if<I>(&variant)), true)) || ...));
}

template <auto Member, auto On, class... Whens, class Record>
void write_field(Choice<Member, On, Whens...>, std::byte*& to, const Record& record) {
  write_variant(std::index_sequence_for<Whens...>{}, to, record.*Member);
}

template <auto Member, class... Whens, class Record>
void write_field(LeadingChoice<Member, Whens...>, std::byte*& to, const Record& record) {
  write_variant(std::index_sequence_for<Whens...>{}, to, record.*Member);
}

template <class Record, class... Fields>
void write_fields(FieldList<Fields...>, std::byte*& to, const Record& record) {
  (write_field(Fields{}, to, record), ...);
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

} // namespace vorlinkit::commands
