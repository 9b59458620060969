#include <vorlinkit/VorlinCodec.hpp>

#include "FrameLayout.hpp"

#include <algorithm>
#include <limits>
#include <utility>

namespace vorlinkit {

namespace {

struct HeaderTexts {
  const char* tooShort;
  const char* invalidLength;
};

HeaderTexts headerTexts(MessageType type) {
  switch (type) {
  case MessageType::Request:
    return {"Request message too short", "Invalid Request header length"};
  case MessageType::Response:
    return {"Response message too short", "Invalid Response header length"};
  case MessageType::Notification:
    return {"Notification message too short", "Invalid Notification header length"};
  }
  return {"", ""};
}

/// What is wrong with the header, in the order in which things are checked; null if nothing is.
const char* faultOf(std::span<const std::byte> bytes) {
  if (bytes.size() < layout::headerStart) return "Message too short to contain header start";
  if (!layout::hasProtocolId(bytes)) return "Invalid Protocol ID (expected 'VR')";
  if (bytes[2] != layout::version) return "Unsupported protocol version";
  const std::size_t dataLengthAt = layout::headerLength(bytes[3]);
  if (dataLengthAt == 0) return "Unknown message type";

  const auto type = static_cast<MessageType>(bytes[3]);
  const std::size_t header = layout::wholeHeader(dataLengthAt);
  if (bytes.size() < header) return headerTexts(type).tooShort;
  if (layout::readU16(bytes, layout::headerLengthAt) != dataLengthAt) return headerTexts(type).invalidLength;
  if (bytes.size() - header < layout::readU32(bytes, dataLengthAt)) return "Incomplete payload data";
  return nullptr;
}

[[gnu::cold, gnu::noinline]] std::expected<RawMessage, Error> refused(const char* fault) {
  return std::unexpected(Error{ErrorCode::Protocol, fault});
}

} // namespace

std::expected<std::vector<std::byte>, Error> VorlinCodec::encodeRequest(std::uint16_t commandId, std::uint8_t clientId,
                                                                        std::span<const std::byte> payload) const {
  if (payload.size() > std::numeric_limits<std::uint32_t>::max())
    return std::unexpected(Error{ErrorCode::Encode, "Payload too large for 32-bit VORLIN length field"});

  constexpr std::byte type{static_cast<std::uint8_t>(MessageType::Request)};
  constexpr std::size_t dataLengthAt = layout::headerLength(type);
  constexpr std::size_t header = layout::wholeHeader(dataLengthAt);
  std::vector<std::byte> frame(header + payload.size());
  frame[0] = layout::protocolId0;
  frame[1] = layout::protocolId1;
  frame[2] = layout::version;
  frame[3] = type;
  layout::writeU16(frame, layout::headerLengthAt, dataLengthAt);
  layout::writeU16(frame, layout::commandIdAt, commandId);
  frame[layout::requestClientIdAt] = std::byte{clientId};
  std::ranges::copy(layout::accessKey, frame.begin() + layout::requestAccessKeyAt);
  layout::writeU32(frame, dataLengthAt, static_cast<std::uint32_t>(payload.size()));
  std::ranges::copy(payload, frame.begin() + header);
  return frame;
}

std::expected<RawMessage, Error> VorlinCodec::decode(std::shared_ptr<std::vector<std::byte>> frame) const {
  const std::span<const std::byte> bytes(*frame);
  if (const char* const fault = faultOf(bytes)) return refused(fault);

  const auto type = static_cast<MessageType>(bytes[3]);
  const std::size_t dataLengthAt = layout::headerLength(bytes[3]);
  const bool answers = type == MessageType::Response;
  // Made where the caller wants it: every frame received passes through here.
  return std::expected<RawMessage, Error>(
      std::in_place, type, layout::readU16(bytes, layout::commandIdAt), std::move(frame),
      bytes.subspan(layout::wholeHeader(dataLengthAt), layout::readU32(bytes, dataLengthAt)),
      answers ? layout::readU32(bytes, layout::responseMajorErrorAt) : 0,
      answers ? layout::readU32(bytes, layout::responseMinorErrorAt) : 0);
}

} // namespace vorlinkit
