#include "DecimalText.hpp"

#include <charconv>

namespace vorlinkit::commands {

char* write_decimal(char* to, std::uint32_t value) noexcept {
  return std::to_chars(to, to + max_digits<std::uint32_t>, value).ptr;
}

char* write_decimal(char* to, std::uint64_t value) noexcept {
  return std::to_chars(to, to + max_digits<std::uint64_t>, value).ptr;
}

} // namespace vorlinkit::commands
