#pragma once

#include <vorlinkit/Error.hpp>
#include <vorlinkit/RawMessage.hpp>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <span>
#include <vector>

namespace vorlinkit {

/// Turns a payload into a request frame and a received frame into a RawMessage. Never looks into
/// payloads. May be called from any thread at once.
class ICodec {
public:
  ICodec() = default;
  ICodec(const ICodec&) = delete;
  ICodec& operator=(const ICodec&) = delete;
  virtual ~ICodec() = default;

  /// A complete request frame. Failure: Encode.
  virtual std::expected<std::vector<std::byte>, Error> encodeRequest(std::uint16_t commandId, std::uint8_t clientId,
                                                                     std::span<const std::byte> payload) const = 0;
  /// Checks the header of one complete frame; on success the message owns the frame. Failure: Protocol.
  virtual std::expected<RawMessage, Error> decode(std::shared_ptr<std::vector<std::byte>> frame) const = 0;
};

} // namespace vorlinkit
