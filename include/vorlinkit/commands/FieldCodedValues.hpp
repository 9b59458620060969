// The known codes of a coded field, with their texts.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace vorlinkit::commands {

/// How a coded field is read.
enum class CodedValueKind : std::uint8_t {
  Enum = 0,     ///< the field holds exactly one of the listed codes
  Bitfield = 1, ///< the field is a set of flags; each code is a flag mask
};

/// One row of a table: a field value or flag mask and its text.
struct FieldCodedValue {
  std::uint16_t code{};
  std::string_view description; ///< a static text, without a trailing separator
};

/// A field's table, in the order in which the protocol lists the codes. Views static data.
struct FieldCodedValues {
  std::span<const FieldCodedValue> values;
  CodedValueKind kind{};
};

} // namespace vorlinkit::commands
