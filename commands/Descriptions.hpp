// The texts of coded values: of one value for users, and straight into JSON text.
#pragma once

#include <vorlinkit/commands/FieldCodedValues.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorlinkit::commands {

/// The description of a value. Enum: the text of its row, or "Unknown value (0x....)". Bitfield: "Success"
/// for 0, otherwise the text of every row that shares a bit with the value, then the bits that no row
/// knows, each part followed by "; ".
std::string describe(const FieldCodedValues& table, std::uint16_t value);

/// No description of the table's values is longer than this.
std::size_t descriptionBound(const FieldCodedValues& table);

/// Stores the description of a value at `to`, which has room for `descriptionBound` bytes; returns its end.
char* writeDescription(char* to, const FieldCodedValues& table, std::uint16_t value);

} // namespace vorlinkit::commands
