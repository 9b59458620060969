// What the samples cannot show: encoding, errors that depend on where a payload ends, and memory.
#include "Bytes.hpp"
#include "PayloadReader.hpp"
#include "PayloadWriter.hpp"

#include "every_kind/commands/every_kind.layout.hpp"

#include <gmock/gmock.h>

#include <new>

using namespace vorlinkit;
using namespace vorlinkit::commands;

template <typename Message> std::string errorOf(std::string_view payload) {
  const auto message = decode<Message>(bytes(payload));
  if (message) return "no error";
  EXPECT_EQ(message.error().code, ErrorCode::Decode);
  return message.error().message;
}

TEST(EveryKind, ErrorsNameTheFirstFieldThatIsMissing) {
  const std::string uint8 = "Not enough bytes for uint8", uint16 = "Not enough bytes for uint16",
                    uint32 = "Not enough bytes for uint32", text = "String not null-terminated",
                    uuid = "Not enough bytes for uuid", variant = "Unknown variant";
  EXPECT_EQ(errorOf<KindsResponse>(""), uint8);
  EXPECT_EQ(errorOf<KindsResponse>("01 02"), uint16);
  EXPECT_EQ(errorOf<KindsResponse>("01 0203 040506"), uint32);
  EXPECT_EQ(errorOf<KindsResponse>("01 0203 04050607 08090A0B0C0D0E"), uint32);
  EXPECT_EQ(errorOf<KindsResponse>("01 0203 04050607 08090A0B0C0D0E0F 4141"), text);
  EXPECT_EQ(errorOf<KindsResponse>("01 0203 04050607 08090A0B0C0D0E0F 00 000102030405060708090A0B0C0D0E"), uuid);
  EXPECT_EQ(errorOf<KindsResponse>("01 0203 04050607 08090A0B0C0D0E0F 00 000102030405060708090A0B0C0D0E0F"), uint8);
  // A record of fixed size says the same as one that is read field by field.
  EXPECT_EQ(errorOf<KindsNotification>("00010203"), uint32);
  EXPECT_EQ(errorOf<KindsNotification>("0001020304050607 00"), uuid);
  EXPECT_EQ(errorOf<KindsNotification>("0001020304050607 000102030405060708090A0B0C0D0E0F 00"), uint16);
  // Lists: the first missing field of the first missing item.
  EXPECT_EQ(errorOf<NestingResponse>("0001 00000002 4100 0001"), text);
  EXPECT_EQ(errorOf<NestingResponse>("0001 00000001 4100 00"), uint16);
  EXPECT_EQ(errorOf<NestingResponse>("0002 00000000 0000000000000000 00000000"), uint32);
  EXPECT_EQ(errorOf<NestingResponse>("0001 00000000 0000000000000002 0001 00"), uint16);
  EXPECT_EQ(errorOf<NestingResponse>("0000"), uint8);
  // Variants: a missing discriminator, one that selects nothing, a cut alternative.
  EXPECT_EQ(errorOf<LeadingResponse>("01 00"), uint16);
  EXPECT_EQ(errorOf<LeadingResponse>("01 0003 0000 00"), variant);
  EXPECT_EQ(errorOf<LeadingResponse>("01 0001 00"), uint16);
  EXPECT_EQ(errorOf<SameRecordResponse>("01 00 00000000"), variant);
  EXPECT_EQ(errorOf<EnclosingResponse>("03 01 00"), variant) << "the value is judged before what follows";
  EXPECT_EQ(errorOf<EnclosingResponse>("03 01 00 00000000"), variant);
  EXPECT_EQ(errorOf<EnclosingResponse>("02 01 07 00 00"), variant);
  // Counts that promise more than there is cost nothing.
  EXPECT_EQ(errorOf<BytesResponse>("FFFFFFFF 01 02 03"), uint8);
  EXPECT_EQ(errorOf<NestingResponse>("0001 FFFFFFFF 4100 0001 4200 0002"), text);
  EXPECT_EQ(errorOf<NestingResponse>("0001 00000000 FFFFFFFFFFFFFFFF 0001"), uint16);
}

TEST(EveryKind, EveryKindIsEncoded) {
  KindsRequest kinds{0x01, 0x0203, 0x04050607, 0x08090A0B0C0D0E0F, std::string("A\0B", 3), 0x10};
  EXPECT_EQ(encode_kinds_request(kinds), bytes("01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 41 00 42 00 10"));
  EXPECT_EQ(encode_keywords_request({.default_ = 3, .class_ = "c"}), bytes("03 63 00"));
}

TEST(EveryKind, APayloadCanBeWrittenIntoMemoryOfTheCallers) {
  struct Exact final : PayloadMemory {
    std::byte* allocate(std::size_t size) override {
      given.assign(size, std::byte{0xEE});
      return given.data();
    }
    std::vector<std::byte> given;
  } exact;
  const NestingRequest request{7, {{0, {}}, {1, {{"a"}}}}};
  ASSERT_TRUE(write_nesting_request(request, exact));
  EXPECT_EQ(exact.given, encode_nesting_request(request));

  struct None final : PayloadMemory {
    std::byte* allocate(std::size_t) override { throw std::bad_alloc(); }
  } none;
  EXPECT_THROW(static_cast<void>(write_nesting_request(request, none)), std::bad_alloc);
}

TEST(EveryKind, CountsAreEncodedAsTheyStand) {
  NestingRequest request;
  request.rows = 7;
  request.list_of_rows.resize(2);
  request.list_of_rows[1] = {.cells = 0, .list_of_cells = {{"a"}, {""}}};
  EXPECT_EQ(encode_nesting_request(request), bytes("00 07 00 00 61 00 00"));
  EXPECT_EQ(encode_bytes_request({.frame_size = 1, .frame = {{9}, {8}}}), bytes("00 00 00 01 09 08"));
}

TEST(EveryKind, TheAlternativeThatIsHeldIsEncodedInPlace) {
  LeadingRequest request;
  request.count = 2;
  request.list_of_options.resize(2);
  EXPECT_EQ(encode_leading_request(request), bytes("02 00 00 00 00 00 00")) << "the first alternative, all zero";
  request.list_of_options[1].option = LeadingRequestOptionsItemListed{7, 1, {{"n"}}};
  EXPECT_EQ(encode_leading_request(request), bytes("02 00 00 00 07 01 6e 00"));
  EXPECT_EQ(leading_request_to_json(request), R"({"Count": 2, "listOfOptions": [{"OptionID": 0, "Pixels": 0}, )"
                                              R"({"OptionID": 7, "Number": 1, "listOfNames": [{"Name": "n"}]}]})");
}
