#include "DecimalText.hpp"

#include <charconv>

namespace vorlinkit::commands {

char* writeDecimal(char* to, std::uint32_t value) noexcept {
  return std::to_chars(to, to + maxDigits<std::uint32_t>, value).ptr;
}

char* writeDecimal(char* to, std::uint64_t value) noexcept {
  return std::to_chars(to, to + maxDigits<std::uint64_t>, value).ptr;
}

} // namespace vorlinkit::commands
