// Where things stand in the three frame headers. All numbers are big-endian.
#pragma once

#include <vorlinkit/RawMessage.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vorlinkit::layout {

inline constexpr std::size_t headerStart = 4; // "VR", version, message type
inline constexpr std::byte protocolId0{'V'};
inline constexpr std::byte protocolId1{'R'};
inline constexpr std::byte version{1};
inline constexpr std::array<std::byte, 4> accessKey{std::byte{0x5A}, std::byte{0xC3}, std::byte{0x1E}, std::byte{0x87}};

inline constexpr std::size_t headerLengthAt = 4;
inline constexpr std::size_t commandIdAt = 6;
inline constexpr std::size_t requestClientIdAt = 8;
inline constexpr std::size_t requestAccessKeyAt = 10;
inline constexpr std::size_t responseMajorErrorAt = 8;
inline constexpr std::size_t responseMinorErrorAt = 12;

/// The header-length field of a message type, which is also the offset of its data length, since the
/// data length is the last field of every header; 0 for a type that does not exist.
constexpr std::size_t headerLength(std::byte messageType) {
  switch (static_cast<MessageType>(messageType)) {
  case MessageType::Request:
    return 14;
  case MessageType::Response:
    return 16;
  case MessageType::Notification:
    return 8;
  }
  return 0;
}

constexpr std::size_t wholeHeader(std::size_t headerLength) { return headerStart + headerLength; }

/// The callers have checked that the bytes are there.
constexpr std::uint16_t readU16(std::span<const std::byte> bytes, std::size_t at) {
  return static_cast<std::uint16_t>((std::to_integer<unsigned>(bytes[at]) << 8) |
                                    std::to_integer<unsigned>(bytes[at + 1]));
}

constexpr std::uint32_t readU32(std::span<const std::byte> bytes, std::size_t at) {
  return (static_cast<std::uint32_t>(readU16(bytes, at)) << 16) | readU16(bytes, at + 2);
}

constexpr void writeU16(std::span<std::byte> bytes, std::size_t at, std::uint16_t value) {
  bytes[at] = static_cast<std::byte>(value >> 8);
  bytes[at + 1] = static_cast<std::byte>(value & 0xFF);
}

constexpr void writeU32(std::span<std::byte> bytes, std::size_t at, std::uint32_t value) {
  writeU16(bytes, at, static_cast<std::uint16_t>(value >> 16));
  writeU16(bytes, at + 2, static_cast<std::uint16_t>(value & 0xFFFF));
}

} // namespace vorlinkit::layout
