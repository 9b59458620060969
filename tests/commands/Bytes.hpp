// Bytes written as people write them.
#pragma once

#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// "00 41 ff" -> three bytes; blanks are ignored.
inline std::vector<std::byte> bytes(std::string_view hex) {
  std::vector<std::byte> result;
  std::string digits;
  for (const char c : hex)
    if (c != ' ') digits += c;
  if (digits.size() % 2) throw std::invalid_argument("half a byte: " + std::string(hex));
  for (std::size_t i = 0; i < digits.size(); i += 2)
    result.push_back(static_cast<std::byte>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return result;
}

/// Three bytes -> "00 41 ff".
inline std::string hex(std::span<const std::byte> data) {
  std::string text;
  for (const auto byte : data) {
    text += text.empty() ? "" : " ";
    text += "0123456789abcdef"[std::to_integer<int>(byte) >> 4];
    text += "0123456789abcdef"[std::to_integer<int>(byte) & 15];
  }
  return text;
}
