// Holds every decoder of a catalogue against payloads made apart from it: each must give its text, each cut
// of it one of the six errors, and noise anything but a crash.
#include "Bytes.hpp"

#include "every_kind_samples/headers.inc"
#include "machine_samples/headers.inc"

#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <memory>
#include <random>

using namespace vorlinkit::commands;

namespace {

using Decoder = std::string (*)(std::span<const std::byte>);
using Decoders = std::map<std::string, Decoder>;

/// The JSON text of a payload, or the error's text.
template <auto Decode, auto Render> std::string run(std::span<const std::byte> payload) {
  const auto message = Decode(payload);
  return message ? Render(*message) : message.error().message;
}

const Decoders machine = {
#include "machine_samples/decoders.inc"
};
const Decoders everyKind = {
#include "every_kind_samples/decoders.inc"
};

constexpr std::string_view decodeErrors[] = {"Not enough bytes for uint8",  "Not enough bytes for uint16",
                                             "Not enough bytes for uint32", "Not enough bytes for uuid",
                                             "String not null-terminated",  "Unknown variant"};

bool isError(const std::string& text) {
  return std::ranges::find(decodeErrors, text) != std::ranges::end(decodeErrors);
}

/// Runs on a copy of exactly the payload's size, so that reading past its end is noticed.
std::string runTight(Decoder decoder, std::span<const std::byte> payload) {
  const auto copy = std::make_unique<std::byte[]>(payload.size());
  std::ranges::copy(payload, copy.get());
  return decoder({copy.get(), payload.size()});
}

void checkSample(Decoder decoder, std::vector<std::byte> payload, const std::string& text) {
  EXPECT_EQ(runTight(decoder, payload), text);
  for (std::size_t size = 0; size < payload.size(); ++size)
    ASSERT_TRUE(isError(runTight(decoder, std::span(payload).first(size)))) << "cut to " << size << " bytes";
  payload.resize(payload.size() + 3, std::byte{0x55});
  EXPECT_EQ(runTight(decoder, payload), text) << "bytes behind the last field";
}

/// Every sample of the file; each decoder of the table has at least one.
void checkSamples(const Decoders& decoders, const std::string& folder) {
  std::ifstream in(SAMPLES_FOLDER "/" + folder + "/samples.txt");
  std::map<std::string, int> seen;
  for (std::string name, payload, text; std::getline(in, name, '\t');) {
    ASSERT_TRUE(std::getline(in, payload, '\t') && std::getline(in, text));
    SCOPED_TRACE(name + " " + payload);
    ASSERT_NO_FATAL_FAILURE(checkSample(decoders.at(name), bytes(payload), text));
    ++seen[name];
  }
  EXPECT_EQ(seen.size(), decoders.size());
}

/// Noise: short and long, of small numbers (which keep lists short enough to go deep) and of any.
void checkNoise(const Decoders& decoders) {
  std::mt19937 random(20260101);
  for (const auto& [name, decoder] : decoders)
    for (int round = 0; round < 200; ++round) {
      std::vector<std::byte> payload(random() % 120);
      for (auto& byte : payload)
        byte = static_cast<std::byte>(random() % (round % 2 ? 4 : 256));
      const auto text = runTight(decoder, payload);
      ASSERT_TRUE(isError(text) || (text.front() == '{' && text.back() == '}'))
          << name << " " << testing::PrintToString(payload);
    }
}

TEST(MachineSamples, EveryMessageGivesItsTextAndEveryCutAnError) { checkSamples(machine, "machine_samples"); }
TEST(MachineSamples, NoiseNeverDoesMoreThanFail) { checkNoise(machine); }
TEST(EveryKindSamples, EveryMessageGivesItsTextAndEveryCutAnError) { checkSamples(everyKind, "every_kind_samples"); }
TEST(EveryKindSamples, NoiseNeverDoesMoreThanFail) { checkNoise(everyKind); }

// The catalogue itself is held against these.
TEST(Machine, AFewMessagesByHand) {
  const struct {
    const char *name, *payload, *text;
  } cases[] = {
      {"GetClientIdResponse", "05", R"({"ClientID": 5})"},
      {"GetHeaderVersionsResponse", "0002 01 01 02 03",
       R"({"NumberOfHeaders": 2, "listOfHeaders": [{"HeaderType": 1, "HeaderVersion": 1}, )"
       R"({"HeaderType": 2, "HeaderVersion": 3}]})"},
      {"GetServerStatusResponse", "0001 0000000100000002 FFFFFFFFFFFFFFFF",
       R"({"CommandError": 1, "CommandError_Desc": "Invalid Notification Level; ", )"
       R"("SystemControllerStartTime": 4294967298, "VORLINServerStartTime": 18446744073709551615})"},
      {"GetServerStatusNotification", "03 4F4B00",
       R"json({"RestartStatus": 3, "RestartStatus_Desc": "Unknown value (0x0003)", "DetailedStatus": "OK"})json"},
      {"GetSoftwareVersionsResponse", "4300 0001  5300 0002  4100 0001 78 00  4200 0000",
       R"({"CopyrightMessage": "C", "NumberOfComponents": 1, "listOfComponents": [{"ComponentName": "S", )"
       R"("NumberOfLists": 2, "listOfLists": [{"ListName": "A", "NumberOfItems": 1, "listOfItems": [{"Item": "x"}]}, )"
       R"({"ListName": "B", "NumberOfItems": 0, "listOfItems": []}]}]})"},
  };
  for (const auto& [name, payload, text] : cases)
    EXPECT_EQ(machine.at(name)(bytes(payload)), text);
  EXPECT_EQ(encode_is_command_supported_request({.command_id = 0x1234}), bytes("12 34"));
  EXPECT_EQ(encode_set_server_time_request({.timestamp = 0x0102030405060708}), bytes("01 02 03 04 05 06 07 08"));
  EXPECT_EQ(encode_flush_log_request({}), bytes("00"));
  EXPECT_EQ(encode_ui_log_in_out_request({.user_name = "Eve", .log_in_out = 1}), bytes("45 76 65 00 01"));
  EXPECT_EQ(flush_log_request_to_json({.log_name = "a\"b\\\n"}), "{\"LogName\": \"a\"b\\\n\"}");
}

} // namespace
