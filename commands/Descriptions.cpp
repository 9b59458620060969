#include "Descriptions.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace vorlinkit::commands {

static constexpr std::string_view success = "Success";
static constexpr std::string_view unknown_value = "Unknown value (0x";
static constexpr std::string_view unknown_error = "Unknown error (0x";
static constexpr std::string_view unknown_bits = "Unknown (0x";
static constexpr std::size_t hex_digits = 4;

static char* write(char* to, std::string_view text) {
  if (!text.empty()) std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

/// `opening`, the value in four upper-case hexadecimal digits, `closing`.
static char* write_hex(char* to, std::string_view opening, unsigned value, std::string_view closing) {
  to = write(to, opening);
  for (unsigned shift = 4 * hex_digits; shift > 0; shift -= 4)
    *to++ = "0123456789ABCDEF"[(value >> (shift - 4)) & 0xF];
  return write(to, closing);
}

static char* write_enum(char* to, const FieldCodedValues& table, std::uint16_t value) {
  for (const auto& row : table.values)
    if (row.code == value) return write(to, row.description);
  return write_hex(to, unknown_value, value, ")");
}

static char* write_bitfield(char* to, const FieldCodedValues& table, std::uint16_t value) {
  if (value == 0) return write(to, success);
  const char* const start = to;
  unsigned unknown = value;
  for (const auto& row : table.values) {
    // Any common bit counts: rows of several bits, up to 0xFFFF, are meant to match this way.
    if (value & row.code) to = write(write(to, row.description), "; ");
    unknown &= ~unsigned{row.code};
  }
  if (unknown) to = write_hex(to, unknown_bits, unknown, "); ");
  return to == start ? write_hex(to, unknown_error, value, ")") : to;
}

char* write_description(char* to, const FieldCodedValues& table, std::uint16_t value) {
  return table.kind == CodedValueKind::Enum ? write_enum(to, table, value) : write_bitfield(to, table, value);
}

std::size_t description_bound(const FieldCodedValues& table) {
  std::size_t longest = 0, all = 0;
  for (const auto& row : table.values) {
    longest = std::max(longest, row.description.size());
    all += row.description.size() + 2;
  }
  const std::size_t fallback = unknown_value.size() + hex_digits + 3;
  return table.kind == CodedValueKind::Enum ? std::max(longest, fallback) : all + fallback;
}

std::string describe(const FieldCodedValues& table, std::uint16_t value) {
  std::string text;
  text.resize_and_overwrite(description_bound(table), [&](char* to, std::size_t) {
    return static_cast<std::size_t>(write_description(to, table, value) - to);
  });
  return text;
}

} // namespace vorlinkit::commands
