#include "Frames.hpp"

#include <vorlinkit/ProtocolErrorFlags.hpp>
#include <vorlinkit/VorlinCodec.hpp>

#include <gtest/gtest.h>

#include <sys/mman.h>

namespace vorlinkit::test {
namespace {

Bytes changed(Bytes frame, std::size_t at, int value) {
  frame.at(at) = static_cast<std::byte>(value);
  return frame;
}

Bytes first(const Bytes& frame, std::size_t count) {
  return {frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(count)};
}

#if SIZE_MAX > UINT32_MAX // in a 32-bit program no payload can be that long
TEST(Codec, RefusesPayloadsBeyondTheLengthField) {
  // Address space only: the length is refused before a byte is read.
  constexpr std::size_t tooLarge = std::size_t{1} << 32;
  void* reserved = mmap(nullptr, tooLarge, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(reserved, MAP_FAILED);
  const auto result = VorlinCodec().encodeRequest(1, 0, {static_cast<const std::byte*>(reserved), tooLarge});
  munmap(reserved, tooLarge);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error(), (Error{ErrorCode::Encode, "Payload too large for 32-bit VORLIN length field"}));
}
#endif

TEST(Codec, DecodesWhatAMachineSends) {
  const auto decode = [](const Bytes& frame) { return VorlinCodec().decode(std::make_shared<Bytes>(frame)).value(); };
  const auto answer = decode(response(0x0304, bytes({9, 8}), 0x01020304, 0x05060708) + bytes({0xEE}));
  EXPECT_EQ(answer.type, MessageType::Response);
  EXPECT_EQ(answer.commandId, 0x0304);
  EXPECT_EQ(answer.majorError, 0x01020304U);
  EXPECT_EQ(answer.minorError, 0x05060708U);
  EXPECT_EQ(Bytes(answer.payload.begin(), answer.payload.end()), bytes({9, 8})) << "surplus is not payload";

  const auto notice = decode(notification(93, bytes({5})));
  EXPECT_EQ(notice.type, MessageType::Notification);
  EXPECT_EQ(notice.commandId, 93);
  EXPECT_EQ(notice.payload.size(), 1U);

  const auto asked = decode(request(7, 3, bytes({1})));
  EXPECT_EQ(asked.type, MessageType::Request);
  EXPECT_EQ(asked.payload.size(), 1U);
}

TEST(Codec, NamesTheFirstThingThatIsWrong) {
  const Bytes answer = response(1, {});
  const Bytes notice = notification(1, bytes({1, 2, 3, 4, 5}));
  const struct {
    Bytes frame;
    const char* text;
  } cases[] = {
      {{}, "Message too short to contain header start"},
      {text("VR") + bytes({1}), "Message too short to contain header start"},
      {text("XR") + bytes({2, 9}), "Invalid Protocol ID (expected 'VR')"},
      {text("VX") + bytes({1, 2}), "Invalid Protocol ID (expected 'VR')"},
      {text("VR") + bytes({2, 1}), "Unsupported protocol version"},
      {text("VR") + bytes({2, 9}), "Unsupported protocol version"},
      {text("VR") + bytes({1, 0}), "Unknown message type"},
      {text("VR") + bytes({1, 4}), "Unknown message type"},
      {first(request(1, 0, {}), 17), "Request message too short"},
      {changed(request(1, 0, {}), 5, 16), "Invalid Request header length"},
      {first(request(1, 0, bytes({1})), 18), "Incomplete payload data"},
      {first(answer, 19), "Response message too short"},
      {first(changed(answer, 5, 14), 19), "Response message too short"},
      {changed(answer, 4, 1), "Invalid Response header length"},
      {changed(answer, 19, 1), "Incomplete payload data"},
      {first(notice, 11), "Notification message too short"},
      {changed(notice, 5, 16), "Invalid Notification header length"},
      {first(notice, 16), "Incomplete payload data"},
  };
  for (const auto& [frame, expected] : cases) {
    const auto decoded = VorlinCodec().decode(std::make_shared<Bytes>(frame));
    ASSERT_FALSE(decoded) << expected;
    EXPECT_EQ(decoded.error(), (Error{ErrorCode::Protocol, expected}));
  }
}

TEST(ProtocolErrors, NamesTheSetBits) {
  EXPECT_EQ(protocolErrorsToString(0x21, true),
            "HeaderLengthIncorrect (0x00000001) | ExclusiveControlRequired (0x00000020)");
  EXPECT_EQ(protocolErrorsToString(1, false), "UnknownRequestVersion (0x00000001)");
  EXPECT_EQ(protocolErrorsToString(0x402, true), "UnsupportedHeaderType (0x00000002)");
  EXPECT_EQ(protocolErrorsToString(0x400, true), "Unknown error");
  EXPECT_EQ(protocolErrorsToString(0, false), "Unknown error");
  EXPECT_EQ(protocolErrorsToString(0xFFFFFFFF, false),
            "UnknownRequestVersion (0x00000001) | UnsupportedHeaderType (0x00000002) | UnexpectedHeaderType "
            "(0x00000004) | UnsupportedCommandId (0x00000008) | DataLengthMismatch (0x00000010) | "
            "ExclusiveControlRequired (0x00000020) | ControlBlocked (0x00000040) | AccessKeyIncorrect (0x00000080) | "
            "ClientIdRequired (0x00000100) | IncorrectClientId (0x00000200)");
}

} // namespace
} // namespace vorlinkit::test
