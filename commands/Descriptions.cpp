#include "Descriptions.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace vorlinkit::commands {

static constexpr std::string_view success = "Success";
static constexpr std::string_view unknownValue = "Unknown value (0x";
static constexpr std::string_view unknownError = "Unknown error (0x";
static constexpr std::string_view unknownBits = "Unknown (0x";
static constexpr std::size_t hexDigits = 4;

static char* write(char* to, std::string_view text) {
  if (!text.empty()) std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

/// `opening`, the value in four upper-case hexadecimal digits, `closing`.
static char* writeHex(char* to, std::string_view opening, unsigned value, std::string_view closing) {
  to = write(to, opening);
  for (unsigned shift = 4 * hexDigits; shift > 0; shift -= 4)
    *to++ = "0123456789ABCDEF"[(value >> (shift - 4)) & 0xF];
  return write(to, closing);
}

static char* writeEnum(char* to, const FieldCodedValues& table, std::uint16_t value) {
  for (const auto& row : table.values)
    if (row.code == value) return write(to, row.description);
  return writeHex(to, unknownValue, value, ")");
}

static char* writeBitfield(char* to, const FieldCodedValues& table, std::uint16_t value) {
  if (value == 0) return write(to, success);
  const char* const start = to;
  unsigned unknown = value;
  for (const auto& row : table.values) {
    // Any common bit counts: rows of several bits, up to 0xFFFF, are meant to match this way.
    if (value & row.code) to = write(write(to, row.description), "; ");
    unknown &= ~unsigned{row.code};
  }
  if (unknown) to = writeHex(to, unknownBits, unknown, "); ");
  return to == start ? writeHex(to, unknownError, value, ")") : to;
}

char* writeDescription(char* to, const FieldCodedValues& table, std::uint16_t value) {
  return table.kind == CodedValueKind::Enum ? writeEnum(to, table, value) : writeBitfield(to, table, value);
}

std::size_t descriptionBound(const FieldCodedValues& table) {
  std::size_t longest = 0, all = 0;
  for (const auto& row : table.values) {
    longest = std::max(longest, row.description.size());
    all += row.description.size() + 2;
  }
  const std::size_t fallback = unknownValue.size() + hexDigits + 3;
  return table.kind == CodedValueKind::Enum ? std::max(longest, fallback) : all + fallback;
}

std::string describe(const FieldCodedValues& table, std::uint16_t value) {
  std::string text;
  text.resize_and_overwrite(descriptionBound(table), [&](char* to, std::size_t) {
    return static_cast<std::size_t>(writeDescription(to, table, value) - to);
  });
  return text;
}

} // namespace vorlinkit::commands
