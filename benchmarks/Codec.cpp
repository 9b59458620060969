// bench_codec: decoding, encoding and rendering, beside coders written by hand for the same messages. Before
// anything is measured, both must agree.
#include "HandWritten.hpp"
#include "Measure.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vorlinkit::benchmarks {
namespace {

using namespace commands;
using Bytes = std::vector<std::byte>;

constexpr Bar decodeBar{1.5, 1.1};
constexpr Bar encodeBar{2.5, 1.2};
constexpr Bar jsonBar{4, 1.3};
constexpr Bar blobBar{2, 1.1};

void require(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "bench_codec: both must agree: %s\n", what);
  std::_Exit(2);
}

/// Measures two calls that must do the same, in rounds of about a millisecond.
template <typename Ours, typename Peer>
void compare(const std::string& name, Ours&& ours, Peer&& peer, Bar bar, double perItems = 1) {
  const double once = nanosecondsPer(3, peer);
  const auto calls = static_cast<std::size_t>(std::max(1.0, 1e6 / once));
  const auto cost =
      leastOf(200, {[&] { return nanosecondsPer(calls, ours); }, [&] { return nanosecondsPer(calls, peer); }});
  reportRatio(name, perItems > 1 ? "ns/item" : "ns", cost[0] / perItems, cost[1] / perItems, bar);
}

/// Decoding and rendering of one response.
template <typename Decode, typename DecodeByHand, typename Render>
void compareResponse(const std::string& name, const Bytes& payload, Decode decode, DecodeByHand decodeByHand,
                     Render render, double items = 1) {
  const auto message = decode(payload);
  const auto messageByHand = decodeByHand(payload);
  require(message && messageByHand && render(*message) == by_hand::toJson(*messageByHand), name.c_str());
  compare("Decode " + name, [&] { use(decode(payload)); }, [&] { use(decodeByHand(payload)); }, decodeBar, items);
  compare("JSON of " + name, [&] { use(render(*message)); }, [&] { use(by_hand::toJson(*message)); }, jsonBar, items);
}

template <typename Request, typename Encode, typename EncodeByHand>
void compareRequest(const std::string& name, const Request& request, Encode encode, EncodeByHand encodeByHand,
                    Bar bar = encodeBar) {
  require(encode(request).value() == encodeByHand(request).value(), name.c_str());
  compare("Encode " + name, [&] { use(encode(request)); }, [&] { use(encodeByHand(request)); }, bar);
}

void append(Bytes& bytes, std::initializer_list<unsigned> values) {
  for (const unsigned value : values)
    bytes.push_back(static_cast<std::byte>(value));
}

void append(Bytes& bytes, const char* text) {
  const auto* first = reinterpret_cast<const std::byte*>(text);
  bytes.insert(bytes.end(), first, first + std::strlen(text) + 1);
}

Bytes machineInfo() {
  Bytes payload;
  append(payload, {3, 12});
  append(payload, "4.11.2");
  append(payload, "S-2031-000417");
  append(payload, "Belt sorter, two modules, dual view");
  return payload;
}

Bytes motors(unsigned count) {
  Bytes payload;
  append(payload, {0, 0});
  append(payload, "conveyor-in");
  append(payload, {count});
  for (unsigned i = 0; i < count; ++i)
    append(payload, {i, i % 3});
  return payload;
}

Bytes supportedCommands(unsigned count) {
  Bytes payload;
  append(payload, {count >> 8, count & 0xFF});
  for (unsigned i = 0; i < count; ++i)
    append(payload, {i >> 8 & 0xFF, i & 0xFF});
  return payload;
}

void responses() {
  Bytes accepted;
  append(accepted, {0, 0});
  compareResponse("SetServerTime response", accepted, decode_set_server_time_response, by_hand::decodeSetServerTime,
                  set_server_time_response_to_json);
  compareResponse("GetMachineInfo response", machineInfo(), decode_get_machine_info_response,
                  by_hand::decodeMachineInfo, get_machine_info_response_to_json);
  compareResponse("GetAttachedMotors response, 200 motors", motors(200), decode_get_attached_motors_response,
                  by_hand::decodeMotors, get_attached_motors_response_to_json);
  compareResponse("list of 60,000 items", supportedCommands(60000), decode_get_supported_commands_response,
                  by_hand::decodeSupportedCommands, get_supported_commands_response_to_json, 60000);

  const auto few = supportedCommands(10), many = supportedCommands(60000);
  const auto cost = leastOf(
      200, {[&] { return nanosecondsPer(20, [&] { use(decode_get_supported_commands_response(many)); }) / 60000; },
            [&] { return nanosecondsPer(20000, [&] { use(decode_get_supported_commands_response(few)); }) / 10; }});
  reportRatio("Decode an item of a list of 60,000, beside one of a list of 10", "ns/item", cost[0], cost[1], {1.1, 1});
}

void requests() {
  compareRequest("SetServerTime request", SetServerTimeRequest{0x0123456789ABCDEF}, encode_set_server_time_request,
                 by_hand::encodeSetServerTime);
  compareRequest("GetAttachedMotors request", GetAttachedMotorsRequest{"conveyor-in"},
                 encode_get_attached_motors_request, by_hand::encodeMotors);
  ResetUsageCountsRequest counts{2, 1000, {}};
  for (int i = 0; i < 1000; ++i)
    counts.list_of_components.push_back({"ejector-" + std::to_string(i)});
  compareRequest("ResetUsageCounts request, 1,000 components", counts, encode_reset_usage_counts_request,
                 by_hand::encodeResetUsageCounts);
}

constexpr std::size_t mebibyte = 1 << 20;

void blobs() {
  Bytes payload;
  append(payload, {0, 7});
  append(payload, "camera-1");
  append(payload, {0, 0, 0, 0, 0, 0, 0, 1, 4, 0, 4, 0, mebibyte >> 24, mebibyte >> 16 & 0xFF, 0, 0});
  const std::size_t head = payload.size();
  payload.resize(head + mebibyte, std::byte{0x5A});
  const auto frame = decode_capture_frame_ex_notification(payload);
  require(frame && frame->frame.size() == mebibyte && frame->frame[0].frame_data_byte == 0x5A, "a frame");
  compare(
      "Decode a CaptureFrameEx notification of 1 MiB, beside one allocation and copy",
      [&] { use(decode_capture_frame_ex_notification(payload)); },
      [&] { use(Bytes(payload.begin() + static_cast<std::ptrdiff_t>(head), payload.end())); }, blobBar);

  SendUpdatePackageChunkRequest chunk{"package", 1, mebibyte, {}};
  chunk.chunk.resize(mebibyte);
  compareRequest("SendUpdatePackageChunk request of 1 MiB", chunk, encode_send_update_package_chunk_request,
                 by_hand::encodeChunk);
}

} // namespace
} // namespace vorlinkit::benchmarks

int main() {
  vorlinkit::benchmarks::keepFreedMemory();
  vorlinkit::benchmarks::responses();
  vorlinkit::benchmarks::requests();
  vorlinkit::benchmarks::blobs();
}
