#include <vorlinkit/Format.hpp>
#include <vorlinkit/ProtocolErrorFlags.hpp>

#include <array>
#include <cstddef>
#include <iterator>
#include <string_view>

namespace vorlinkit {

namespace {

// Bit 0 is the only one whose name depends on the field.
constexpr std::array<std::string_view, 10> majorNames{
    "HeaderLengthIncorrect", "UnsupportedHeaderType",    "UnexpectedHeaderType", "UnsupportedCommandId",
    "DataLengthMismatch",    "ExclusiveControlRequired", "ControlBlocked",       "AccessKeyIncorrect",
    "ClientIdRequired",      "IncorrectClientId"};
constexpr std::string_view minorNameOfBit0 = "UnknownRequestVersion";

} // namespace

std::string protocolErrorsToString(std::uint32_t flags, bool isMajor) {
  std::string text;
  for (std::size_t bit = 0; bit < majorNames.size(); ++bit) {
    const std::uint32_t value = std::uint32_t{1} << bit;
    if ((flags & value) == 0) continue;
    const std::string_view name = bit == 0 && !isMajor ? minorNameOfBit0 : majorNames[bit];
    if (!text.empty()) text += " | ";
    formatting::format_to(std::back_inserter(text), "{} (0x{:08X})", name, value);
  }
  return text.empty() ? "Unknown error" : text;
}

} // namespace vorlinkit
