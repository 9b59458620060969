#pragma once

#include <vorlinkit/ICodec.hpp>

namespace vorlinkit {

/// The codec of the VORLIN message headers. Has no state.
class VorlinCodec final : public ICodec {
public:
  std::expected<std::vector<std::byte>, Error> encodeRequest(std::uint16_t commandId, std::uint8_t clientId,
                                                             std::span<const std::byte> payload) const override;
  std::expected<RawMessage, Error> decode(std::shared_ptr<std::vector<std::byte>> frame) const override;
};

} // namespace vorlinkit
