#include "UuidText.hpp"

namespace vorlinkit::commands {

std::string uuidText(const std::byte* bytes) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text(36, '-');
  auto at = text.begin();
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) ++at;
    const auto value = std::to_integer<unsigned>(bytes[i]);
    *at++ = digits[value >> 4];
    *at++ = digits[value & 0xF];
  }
  return text;
}

} // namespace vorlinkit::commands
