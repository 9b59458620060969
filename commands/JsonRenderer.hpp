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

template <typename Field> consteval TextBound fieldBound(std::size_t key) {
  // Numbers have one byte to spare, since short ones are stored four characters at a time.
  if constexpr (Field::kind == FieldKind::Number)
    return {punctuation + key + maxDigits<Held<Field>> + 1, true};
  else if constexpr (Field::kind == FieldKind::Coded)
    return {2 * (punctuation + key) + std::string_view("_Desc").size() + maxDigits<Held<Field>> + 1, false};
  else if constexpr (isChoice(Field::kind))
    return {0, false};
  else
    return {punctuation + key, false};
}

template <typename Record, typename... Fields> consteval TextBound fieldsBound(FieldList<Fields...>) {
  std::size_t index = 0, fixed = 2; // the braces
  bool exact = true;
  const auto add = [&](TextBound bound) {
    fixed += bound.fixed;
    exact = exact && bound.exact;
  };
  (add(fieldBound<Fields>(Layout<Record>::keys[index++].size())), ...);
  return {fixed, exact};
}

template <typename Record>
inline constexpr TextBound recordBound = fieldsBound<Record>(typename Layout<Record>::Fields{});

/// What the value at hand adds to the fixed bound of its record.
template <typename Record> std::size_t extraText(const Record& record);

template <typename Variant, std::size_t... I>
std::size_t extraVariantText(std::index_sequence<I...>, const Variant& variant) {
  std::size_t size = 0;
  const auto add = [&size](const auto& record) {
    size = recordBound<std::remove_cvref_t<decltype(record)>>.fixed + extraText(record);
    return true;
  };
  static_cast<void>(((variant.index() == I && add(*std::get_if<I>(&variant))) || ...));
  return size;
}

template <typename Field, typename Record> std::size_t extraFieldText(const Record& record) {
  if constexpr (Field::kind == FieldKind::Coded) {
    constexpr auto success = std::string_view("Success").size();
    const bool isSuccess = Field::table.kind == CodedValueKind::Bitfield && record.*Field::member == 0;
    return isSuccess ? success : descriptionBound(Field::table);
  } else if constexpr (Field::kind == FieldKind::Text || Field::kind == FieldKind::Uuid) {
    return (record.*Field::member).size();
  } else if constexpr (Field::kind == FieldKind::Items) {
    constexpr auto bound = recordBound<typename Held<Field>::value_type>;
    std::size_t size = (record.*Field::member).size() * (bound.fixed + 2);
    if constexpr (!bound.exact)
      for (const auto& item : record.*Field::member)
        size += extraText(item);
    return size;
  } else if constexpr (isChoice(Field::kind)) {
    constexpr auto indices = std::make_index_sequence<std::variant_size_v<Held<Field>>>{};
    return extraVariantText(indices, record.*Field::member);
  } else {
    return 0;
  }
}

template <typename Record, typename... Fields> std::size_t extraFieldsText(FieldList<Fields...>, const Record& record) {
  return (std::size_t{0} + ... + extraFieldText<Fields>(record));
}

template <typename Record> std::size_t extraText(const Record& record) {
  return extraFieldsText(typename Layout<Record>::Fields{}, record);
}

// -- text -----------------------------------------------------------------------------------------------------

template <std::size_t Size> char* writeLiteral(char* to, const char (&text)[Size]) noexcept {
  std::memcpy(to, text, Size - 1);
  return to + Size - 1;
}

inline char* writeBytes(char* to, std::string_view text) noexcept {
  std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

/// `"Key": `, after a separator unless it is the first of its record.
template <typename Record, std::size_t Index, bool First> char* writeKey(char* to) noexcept {
  constexpr std::string_view key = Layout<Record>::keys[Index];
  if constexpr (!First) to = writeLiteral(to, ", ");
  *to++ = '"';
  std::memcpy(to, key.data(), key.size());
  return writeLiteral(to + key.size(), "\": ");
}

/// A number's entry is followed by that of its description.
template <typename Field, typename Record> char* writeCoded(char* to, std::string_view key, const Record& record) {
  const auto value = record.*Field::member;
  to = writeDecimal(to, value);
  to = writeLiteral(to, ", \"");
  to = writeBytes(to, key);
  to = writeLiteral(to, "_Desc\": \"");
  if (Field::table.kind == CodedValueKind::Bitfield && value == 0)
    to = writeLiteral(to, "Success");
  else
    to = writeDescription(to, Field::table, value);
  *to++ = '"';
  return to;
}

template <typename Record> char* writeObject(char* to, const Record& record);

template <typename Item> char* writeList(char* to, const std::vector<Item>& items) {
  *to++ = '[';
  for (const auto& item : items) {
    to = writeObject(to, item);
    to = writeLiteral(to, ", ");
  }
  if (!items.empty()) to -= 2;
  *to++ = ']';
  return to;
}

template <bool First, typename Record> char* writeEntries(char* to, const Record& record);

/// The fields of the alternative that is held stand among those of the record that holds it.
template <bool First, typename Variant, std::size_t... I>
char* writeHeld(std::index_sequence<I...>, char* to, const Variant& variant) {
  static_cast<void>(((variant.index() == I && (to = writeEntries<First>(to, *std::get_if<I>(&variant)), true)) || ...));
  return to;
}

template <typename Field, std::size_t Index, bool First, typename Record>
char* writeEntry(char* to, const Record& record) {
  const auto& value = record.*Field::member;
  if constexpr (isChoice(Field::kind)) {
    return writeHeld<First>(std::make_index_sequence<std::variant_size_v<Held<Field>>>{}, to, value);
  } else {
    to = writeKey<Record, Index, First>(to);
    if constexpr (Field::kind == FieldKind::Number) {
      return writeDecimal(to, value);
    } else if constexpr (Field::kind == FieldKind::Coded) {
      return writeCoded<Field>(to, Layout<Record>::keys[Index], record);
    } else if constexpr (Field::kind == FieldKind::Items) {
      return writeList(to, value);
    } else {
      *to++ = '"';
      to = writeBytes(to, value);
      *to++ = '"';
      return to;
    }
  }
}

template <bool First, typename Record, typename... Fields, std::size_t... I>
char* writeFields(FieldList<Fields...>, std::index_sequence<I...>, char* to, const Record& record) {
  ((to = writeEntry < Fields, I, First && I == 0 > (to, record)), ...);
  return to;
}

template <bool First, typename Record> char* writeEntries(char* to, const Record& record) {
  constexpr auto indices = std::make_index_sequence<std::size(Layout<Record>::keys)>{};
  return writeFields<First>(typename Layout<Record>::Fields{}, indices, to, record);
}

template <typename Record> char* writeObject(char* to, const Record& record) {
  *to++ = '{';
  to = writeEntries<true>(to, record);
  *to++ = '}';
  return to;
}

/// The JSON text of one message.
template <typename Message> std::string toJson(const Message& message) {
  std::string text;
  text.resize_and_overwrite(recordBound<Message>.fixed + extraText(message), [&](char* to, std::size_t) {
    return static_cast<std::size_t>(writeObject(to, message) - to);
  });
  return text;
}

} // namespace vorlinkit::commands
