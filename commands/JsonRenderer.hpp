// Renders records as one line of JSON text, as their layouts declare. First a bound on the length is added
// up, most of it known when compiling; then the text is stored into one allocation without further checks.
// Strings are stored as they stand, without escaping: the text is for logs, byte for byte what the machine
// sent.
#pragma once

#include "DecimalText.hpp"
#include "Descriptions.hpp"
#include "Layout.hpp"

#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace vorlinkit::commands {

// -- bounds ---------------------------------------------------------------------------------------------------

/// How long the text of one field or record can become: `fixed`, known when compiling, and, unless `exact`,
/// what the value at hand adds to it. The punctuation is counted generously: `, "Key": "..."`.
struct TextBound {
  std::size_t fixed;
  bool exact;
};
inline constexpr std::size_t punctuation = std::string_view(R"(, "": "")").size();

template <class Record> consteval TextBound record_bound();

template <auto Member> consteval TextBound field_bound(Number<Member>, std::size_t key) {
  // One byte to spare, since short numbers are stored four characters at a time.
  return {punctuation + key + max_digits<value_of<Member>> + 1, true};
}
template <auto Member, const FieldCodedValues& Table>
consteval TextBound field_bound(Coded<Member, Table>, std::size_t key) {
  constexpr auto desc = std::string_view("_Desc").size();
  return {2 * (punctuation + key) + desc + max_digits<value_of<Member>> + 1, false};
}
template <auto Member> consteval TextBound field_bound(Text<Member>, std::size_t key) {
  return {punctuation + key, false};
}
template <auto Member> consteval TextBound field_bound(Uuid<Member>, std::size_t key) {
  return {punctuation + key, false};
}
template <auto Member, auto Count> consteval TextBound field_bound(Items<Member, Count>, std::size_t key) {
  return {punctuation + key, false};
}
template <auto Member, auto On, class... Whens>
consteval TextBound field_bound(Choice<Member, On, Whens...>, std::size_t) {
  return {0, false};
}
template <auto Member, class... Whens> consteval TextBound field_bound(LeadingChoice<Member, Whens...>, std::size_t) {
  return {0, false};
}

template <class Record, class... Fields> consteval TextBound fields_bound(FieldList<Fields...>) {
  std::size_t index = 0, fixed = 2; // the braces
  bool exact = true;
  const auto add = [&](TextBound bound) {
    fixed += bound.fixed;
    exact = exact && bound.exact;
    ++index;
  };
  (add(field_bound(Fields{}, Layout<Record>::keys[index].size())), ...);
  return {fixed, exact};
}

template <class Record> consteval TextBound record_bound() {
  return fields_bound<Record>(typename Layout<Record>::Fields{});
}

/// What the value at hand adds to the fixed bound of its record.
template <class Record> std::size_t extra_text(const Record& record);

template <class Field, class Record> std::size_t extra_field_text(Field, const Record&) { return 0; }

template <auto Member, const FieldCodedValues& Table, class Record>
std::size_t extra_field_text(Coded<Member, Table>, const Record& record) {
  constexpr auto success = std::string_view("Success").size();
  return Table.kind == CodedValueKind::Bitfield && record.*Member == 0 ? success : description_bound(Table);
}

template <auto Member, class Record> std::size_t extra_field_text(Text<Member>, const Record& record) {
  return (record.*Member).size();
}

template <auto Member, class Record> std::size_t extra_field_text(Uuid<Member>, const Record& record) {
  return (record.*Member).size();
}

template <auto Member, auto Count, class Record>
std::size_t extra_field_text(Items<Member, Count>, const Record& record) {
  const auto& items = record.*Member;
  using Item = typename value_of<Member>::value_type;
  constexpr auto bound = record_bound<Item>();
  std::size_t size = items.size() * (bound.fixed + 2);
  if constexpr (!bound.exact)
    for (const auto& item : items)
      size += extra_text(item);
  return size;
}

template <class Variant, std::size_t... I>
std::size_t extra_variant_text(std::index_sequence<I...>, const Variant& variant) {
  std::size_t size = 0;
  const auto add = [&size](const auto& record) {
    size = record_bound<std::remove_cvref_t<decltype(record)>>().fixed + extra_text(record);
    return true;
  };
  static_cast<void>(((variant.index() == I && add(*std::get_if<I>(&variant))) || ...));
  return size;
}

template <auto Member, auto On, class... Whens, class Record>
std::size_t extra_field_text(Choice<Member, On, Whens...>, const Record& record) {
  return extra_variant_text(std::index_sequence_for<Whens...>{}, record.*Member);
}

template <auto Member, class... Whens, class Record>
std::size_t extra_field_text(LeadingChoice<Member, Whens...>, const Record& record) {
  return extra_variant_text(std::index_sequence_for<Whens...>{}, record.*Member);
}

template <class Record, class... Fields>
std::size_t extra_fields_text(FieldList<Fields...>, const Record& record) {
  return (std::size_t{0} + ... + extra_field_text(Fields{}, record));
}

template <class Record> std::size_t extra_text(const Record& record) {
  return extra_fields_text(typename Layout<Record>::Fields{}, record);
}

// -- text -----------------------------------------------------------------------------------------------------

template <std::size_t Size> char* write_literal(char* to, const char (&text)[Size]) noexcept {
  std::memcpy(to, text, Size - 1);
  return to + Size - 1;
}

inline char* write_bytes(char* to, std::string_view text) noexcept {
  std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

/// `"Key": `, after a separator unless it is the first of its record.
template <class Record, std::size_t Index, bool First> char* write_key(char* to) noexcept {
  constexpr std::string_view key = Layout<Record>::keys[Index];
  if constexpr (!First)
    to = write_literal(to, ", ");
  *to++ = '"';
  std::memcpy(to, key.data(), key.size());
  return write_literal(to + key.size(), "\": ");
}

template <class Record> char* write_object(char* to, const Record& record);
template <class Record, bool First, class... Fields, std::size_t... I>
char* write_entries(char* to, const Record& record, FieldList<Fields...>, std::index_sequence<I...>);

template <std::size_t Index, bool First, auto Member, class Record>
char* write_entry(Number<Member>, char* to, const Record& record) {
  return write_decimal(write_key<Record, Index, First>(to), record.*Member);
}

template <std::size_t Index, bool First, auto Member, const FieldCodedValues& Table, class Record>
char* write_entry(Coded<Member, Table>, char* to, const Record& record) {
  constexpr std::string_view key = Layout<Record>::keys[Index];
  const auto value = record.*Member;
  to = write_decimal(write_key<Record, Index, First>(to), value);
  to = write_literal(to, ", \"");
  std::memcpy(to, key.data(), key.size());
  to = write_literal(to + key.size(), "_Desc\": \"");
  if (Table.kind == CodedValueKind::Bitfield && value == 0)
    to = write_literal(to, "Success");
  else
    to = write_description(to, Table, value);
  *to++ = '"';
  return to;
}

template <std::size_t Index, bool First, auto Member, class Record>
char* write_entry(Text<Member>, char* to, const Record& record) {
  to = write_key<Record, Index, First>(to);
  *to++ = '"';
  to = write_bytes(to, record.*Member);
  *to++ = '"';
  return to;
}

template <std::size_t Index, bool First, auto Member, class Record>
char* write_entry(Uuid<Member>, char* to, const Record& record) {
  return write_entry<Index, First>(Text<Member>{}, to, record);
}

template <std::size_t Index, bool First, auto Member, auto Count, class Record>
char* write_entry(Items<Member, Count>, char* to, const Record& record) {
  to = write_key<Record, Index, First>(to);
  *to++ = '[';
  const auto& items = record.*Member;
  for (const auto& item : items) {
    to = write_object(to, item);
    to = write_literal(to, ", ");
  }
  if (!items.empty())
    to -= 2;
  *to++ = ']';
  return to;
}

/// The fields of the alternative that is held stand among those of the record that holds it.
template <bool First, class Variant, std::size_t... I>
char* write_held(std::index_sequence<I...>, char* to, const Variant& variant) {
  const auto write = [&to](const auto& record) {
    using Held = std::remove_cvref_t<decltype(record)>;
    using Fields = typename Layout<Held>::Fields;
    to = write_entries<Held, First>(to, record, Fields{}, std::make_index_sequence<std::size(Layout<Held>::keys)>{});
    return true;
  };
  static_cast<void>(((variant.index() == I && write(*std::get_if<I>(&variant))) || ...));
  return to;
}

template <std::size_t Index, bool First, auto Member, auto On, class... Whens, class Record>
char* write_entry(Choice<Member, On, Whens...>, char* to, const Record& record) {
  return write_held<First>(std::index_sequence_for<Whens...>{}, to, record.*Member);
}

template <std::size_t Index, bool First, auto Member, class... Whens, class Record>
char* write_entry(LeadingChoice<Member, Whens...>, char* to, const Record& record) {
  return write_held<First>(std::index_sequence_for<Whens...>{}, to, record.*Member);
}

template <class Record, bool First, class... Fields, std::size_t... I>
char* write_entries(char* to, const Record& record, FieldList<Fields...>, std::index_sequence<I...>) {
  ((to = write_entry<I, First && I == 0>(Fields{}, to, record)), ...);
  return to;
}

template <class Record> char* write_object(char* to, const Record& record) {
  *to++ = '{';
  using Fields = typename Layout<Record>::Fields;
  to = write_entries<Record, true>(to, record, Fields{}, std::make_index_sequence<std::size(Layout<Record>::keys)>{});
  *to++ = '}';
  return to;
}

/// The JSON text of one message.
template <class Message> std::string to_json(const Message& message) {
  std::string text;
  text.resize_and_overwrite(record_bound<Message>().fixed + extra_text(message), [&](char* to, std::size_t) {
    return static_cast<std::size_t>(write_object(to, message) - to);
  });
  return text;
}

} // namespace vorlinkit::commands
