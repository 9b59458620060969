// Bytes written as people write them.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// "00 41 ff" -> three bytes; blanks are ignored.
inline std::vector<std::byte> bytes(std::string_view hex) {
  std::string digits(hex);
  std::erase(digits, ' ');
  if (digits.size() % 2) throw std::invalid_argument("half a byte: " + digits);
  std::vector<std::byte> result;
  for (std::size_t i = 0; i < digits.size(); i += 2)
    result.push_back(static_cast<std::byte>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return result;
}
