// One decoded frame: header fields and a view of the payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace vorlinkit {

/// The message-type byte of a header.
enum class MessageType : std::uint8_t { Request = 1, Response = 2, Notification = 3 };

/// One decoded frame. Copies share the frame's bytes, which live as long as any copy does; after the
/// last copy is gone the library may use the memory for a later frame. A copy may be kept and read on
/// any thread.
struct RawMessage {
  MessageType type{};
  std::uint16_t commandId{};
  std::shared_ptr<std::vector<std::byte>> buffer; ///< the whole frame, header included
  std::span<const std::byte> payload;             ///< the bytes behind the header, inside `buffer`
  std::uint32_t majorError{};                     ///< responses only: why the request was refused
  std::uint32_t minorError{};                     ///< responses only: warnings about the request
};

} // namespace vorlinkit
