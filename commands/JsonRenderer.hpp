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

template <class Field> consteval TextBound field_bound(std::size_t key) {
  // Numbers have one byte to spare, since short ones are stored four characters at a time.
  if constexpr (Field::kind == FieldKind::Number)
    return {punctuation + key + max_digits<Held<Field>> + 1, true};
  else if constexpr (Field::kind == FieldKind::Coded)
    return {2 * (punctuation + key) + std::string_view("_Desc").size() + max_digits<Held<Field>> + 1, false};
  else if constexpr (is_choice(Field::kind))
    return {0, false};
  else
    return {punctuation + key, false};
}

template <class Record, class... Fields> consteval TextBound fields_bound(FieldList<Fields...>) {
  std::size_t index = 0, fixed = 2; // the braces
  bool exact = true;
  const auto add = [&](TextBound bound) {
    fixed += bound.fixed;
    exact = exact && bound.exact;
  };
  (add(field_bound<Fields>(Layout<Record>::keys[index++].size())), ...);
  return {fixed, exact};
}

template <class Record>
inline constexpr TextBound record_bound = fields_bound<Record>(typename Layout<Record>::Fields{});

/// What the value at hand adds to the fixed bound of its record.
template <class Record> std::size_t extra_text(const Record& record);

template <class Variant, std::size_t... I>
std::size_t extra_variant_text(std::index_sequence<I...>, const Variant& variant) {
  std::size_t size = 0;
  const auto add = [&size](const auto& record) {
    size = record_bound<std::remove_cvref_t<decltype(record)>>.fixed + extra_text(record);
    return true;
  };
  static_cast<void>(((variant.index() == I && add(*std::get_if<I>(&variant))) || ...));
  return size;
}

template <class Field, class Record> std::size_t extra_field_text(const Record& record) {
  if constexpr (Field::kind == FieldKind::Coded) {
    constexpr auto success = std::string_view("Success").size();
    const bool is_success = Field::table.kind == CodedValueKind::Bitfield && record.*Field::member == 0;
    return is_success ? success : description_bound(Field::table);
  } else if constexpr (Field::kind == FieldKind::Text || Field::kind == FieldKind::Uuid) {
    return (record.*Field::member).size();
  } else if constexpr (Field::kind == FieldKind::Items) {
    constexpr auto bound = record_bound<typename Held<Field>::value_type>;
    std::size_t size = (record.*Field::member).size() * (bound.fixed + 2);
    if constexpr (!bound.exact)
      for (const auto& item : record.*Field::member)
        size += extra_text(item);
    return size;
  } else if constexpr (is_choice(Field::kind)) {
    constexpr auto indices = std::make_index_sequence<std::variant_size_v<Held<Field>>>{};
    return extra_variant_text(indices, record.*Field::member);
  } else {
    return 0;
  }
}

template <class Record, class... Fields> std::size_t extra_fields_text(FieldList<Fields...>, const Record& record) {
  return (std::size_t{0} + ... + extra_field_text<Fields>(record));
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
  if constexpr (!First) to = write_literal(to, ", ");
  *to++ = '"';
  std::memcpy(to, key.data(), key.size());
  return write_literal(to + key.size(), "\": ");
}

/// A number's entry is followed by that of its description.
template <class Field, class Record> char* write_coded(char* to, std::string_view key, const Record& record) {
  const auto value = record.*Field::member;
  to = write_decimal(to, value);
  to = write_literal(to, ", \"");
  to = write_bytes(to, key);
  to = write_literal(to, "_Desc\": \"");
  if (Field::table.kind == CodedValueKind::Bitfield && value == 0)
    to = write_literal(to, "Success");
  else
    to = write_description(to, Field::table, value);
  *to++ = '"';
  return to;
}

template <class Record> char* write_object(char* to, const Record& record);

template <class Item> char* write_list(char* to, const std::vector<Item>& items) {
  *to++ = '[';
  for (const auto& item : items) {
    to = write_object(to, item);
    to = write_literal(to, ", ");
  }
  if (!items.empty()) to -= 2;
  *to++ = ']';
  return to;
}

template <bool First, class Record> char* write_entries(char* to, const Record& record);

/// The fields of the alternative that is held stand among those of the record that holds it.
template <bool First, class Variant, std::size_t... I>
char* write_held(std::index_sequence<I...>, char* to, const Variant& variant) {
  static_cast<void>(
      ((variant.index() == I && (to = write_entries<First>(to, *std::get_if<I>(&variant)), true)) || ...));
  return to;
}

template <class Field, std::size_t Index, bool First, class Record> char* write_entry(char* to, const Record& record) {
  const auto& value = record.*Field::member;
  if constexpr (is_choice(Field::kind)) {
    return write_held<First>(std::make_index_sequence<std::variant_size_v<Held<Field>>>{}, to, value);
  } else {
    to = write_key<Record, Index, First>(to);
    if constexpr (Field::kind == FieldKind::Number) {
      return write_decimal(to, value);
    } else if constexpr (Field::kind == FieldKind::Coded) {
      return write_coded<Field>(to, Layout<Record>::keys[Index], record);
    } else if constexpr (Field::kind == FieldKind::Items) {
      return write_list(to, value);
    } else {
      *to++ = '"';
      to = write_bytes(to, value);
      *to++ = '"';
      return to;
    }
  }
}

template <bool First, class Record, class... Fields, std::size_t... I>
char* write_fields(FieldList<Fields...>, std::index_sequence<I...>, char* to, const Record& record) {
  ((to = write_entry < Fields, I, First && I == 0 > (to, record)), ...);
  return to;
}

template <bool First, class Record> char* write_entries(char* to, const Record& record) {
  constexpr auto indices = std::make_index_sequence<std::size(Layout<Record>::keys)>{};
  return write_fields<First>(typename Layout<Record>::Fields{}, indices, to, record);
}

template <class Record> char* write_object(char* to, const Record& record) {
  *to++ = '{';
  to = write_entries<true>(to, record);
  *to++ = '}';
  return to;
}

/// The JSON text of one message.
template <class Message> std::string to_json(const Message& message) {
  std::string text;
  text.resize_and_overwrite(record_bound<Message>.fixed + extra_text(message), [&](char* to, std::size_t) {
    return static_cast<std::size_t>(write_object(to, message) - to);
  });
  return text;
}

} // namespace vorlinkit::commands
