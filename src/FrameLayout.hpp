// Where things stand in the three frame headers. All numbers are big-endian.
#pragma once

#include <vorlinkit/RawMessage.hpp>

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
  const auto type = static_cast<MessageType>(messageType);
  if (type == MessageType::Notification) [[likely]]
    return 8;
  if (type == MessageType::Response) [[likely]]
    return 16;
  return type == MessageType::Request ? 14 : 0;
}

constexpr std::size_t wholeHeader(std::size_t headerLength) { return headerStart + headerLength; }

/// The callers have checked that the bytes are there.
template <std::unsigned_integral Number> Number readNumber(std::span<const std::byte> bytes, std::size_t at) {
  Number value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return std::endian::native == std::endian::little ? std::byteswap(value) : value;
}
inline std::uint16_t readU16(std::span<const std::byte> bytes, std::size_t at) {
  return readNumber<std::uint16_t>(bytes, at);
}
inline std::uint32_t readU32(std::span<const std::byte> bytes, std::size_t at) {
  return readNumber<std::uint32_t>(bytes, at);
}

inline bool hasProtocolId(std::span<const std::byte> bytes) {
  return readU16(bytes, 0) == ((std::to_integer<unsigned>(protocolId0) << 8) | std::to_integer<unsigned>(protocolId1));
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

namespace vorlinkit {

/// What keeps a stream from being cut into frames.
enum class StreamFault { None, BadProtocolId, UnknownMessageType };

/// What the first bytes of a frame say about it.
struct FrameHead {
  StreamFault fault = StreamFault::None;
  /// The least length that the frame can have, as far as these bytes tell; once its header is there, its
  /// length. The frame is whole when that many bytes are there, which may be more than memory has addresses.
  std::uint64_t frameLength = 0;
};

/// Looks at what is needed to find the end of a frame; the rest of a header is for the codec to check.
inline FrameHead readHead(std::span<const std::byte> bytes) {
  if (bytes.size() < layout::headerStart) return {StreamFault::None, layout::headerStart};
  if (!layout::hasProtocolId(bytes)) return {StreamFault::BadProtocolId};
  const std::size_t dataLengthAt = layout::headerLength(bytes[3]);
  if (dataLengthAt == 0) return {StreamFault::UnknownMessageType};
  const std::size_t header = layout::wholeHeader(dataLengthAt);
  if (bytes.size() < header) return {StreamFault::None, header};
  return {StreamFault::None, std::uint64_t{header} + layout::readU32(bytes, dataLengthAt)};
}

} // namespace vorlinkit
