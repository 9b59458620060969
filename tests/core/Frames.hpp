// Frames made by hand, so that the codec is not its own witness.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

namespace vorlinkit::test {

using Bytes = std::vector<std::byte>;

inline Bytes bytes(std::initializer_list<int> values) {
  Bytes result;
  for (const int value : values)
    result.push_back(static_cast<std::byte>(value));
  return result;
}

inline Bytes text(const std::string& characters) {
  const auto data = std::as_bytes(std::span(characters));
  return {data.begin(), data.end()};
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes bigEndian(std::uint32_t value, int width) {
  Bytes result;
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
    result.push_back(static_cast<std::byte>(value >> shift));
  return result;
}

inline Bytes response(std::uint16_t commandId, const Bytes& payload, std::uint32_t majorError = 0,
                      std::uint32_t minorError = 0) {
  return text("VR") + bytes({1, 2, 0, 16}) + bigEndian(commandId, 2) + bigEndian(majorError, 4) +
         bigEndian(minorError, 4) + bigEndian(static_cast<std::uint32_t>(payload.size()), 4) + payload;
}

inline Bytes notification(std::uint16_t commandId, const Bytes& payload) {
  return text("VR") + bytes({1, 3, 0, 8}) + bigEndian(commandId, 2) +
         bigEndian(static_cast<std::uint32_t>(payload.size()), 4) + payload;
}

inline Bytes request(std::uint16_t commandId, std::uint8_t clientId, const Bytes& payload) {
  return text("VR") + bytes({1, 1, 0, 14}) + bigEndian(commandId, 2) + bytes({clientId, 0, 0x5A, 0xC3, 0x1E, 0x87}) +
         bigEndian(static_cast<std::uint32_t>(payload.size()), 4) + payload;
}

} // namespace vorlinkit::test
