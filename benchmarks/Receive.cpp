// bench_receive: notifications, small ones cut out of memory, big ones over loopback.
#include "CallbackSlots.hpp"
#include "FrameLayout.hpp"
#include "ITransportWriteChannel.hpp"
#include "Machine.hpp"
#include "Measure.hpp"
#include "MessageFramer.hpp"

#include <vorlinkit/VorlinCodec.hpp>
#include <vorlinkit/VorlinSession.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <map>

#include <unistd.h>

namespace vorlinkit::benchmarks {
namespace {

constexpr std::uint16_t notified = 45;
constexpr std::size_t chunkSize = 64 * 1024;

void require(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "bench_receive: %s\n", what);
  std::_Exit(2);
}

/// A framer needs a way out, but nothing is sent here.
class NoWriteChannel final : public ITransportWriteChannel {
public:
  std::optional<Written> write(std::vector<std::byte>, std::size_t) noexcept override { return Written(); }
  void readArrived() noexcept override {}
  asio::any_io_executor getExecutor() override { return context_.get_executor(); }

private:
  asio::io_context context_{1};
};

/// A chunk of the stream, full of 10-byte notifications.
std::vector<std::byte> smallNotifications(std::size_t& count) {
  const auto one = notificationFrame(notified, 10);
  std::vector<std::byte> chunk;
  for (count = 0; chunk.size() + one.size() <= chunkSize; ++count)
    chunk.insert(chunk.end(), one.begin(), one.end());
  return chunk;
}

using Handler = std::function<void(std::uint16_t, std::span<const std::byte>)>;

/// The length of the notification that the chunk begins with, all of its header checked; 0 for none.
std::size_t lengthOfFirst(std::span<const std::byte> chunk) {
  if (chunk.size() < notificationHeader) return 0;
  if (chunk[0] != layout::protocolId0 || chunk[1] != layout::protocolId1 || chunk[2] != layout::version) return 0;
  const std::size_t dataLengthAt = layout::headerLength(chunk[3]);
  if (layout::readU16(chunk, layout::headerLengthAt) != dataLengthAt) return 0;
  if (layout::wholeHeader(dataLengthAt) != notificationHeader) return 0;
  const std::size_t whole = notificationHeader + layout::readU32(chunk, dataLengthAt);
  return whole <= chunk.size() ? whole : 0;
}

/// The least that can be done: look at each header where it lies and hand out views.
void cutInPlace(std::span<const std::byte> chunk, const Handler& handler) {
  while (const std::size_t whole = lengthOfFirst(chunk)) {
    handler(layout::readU16(chunk, layout::commandIdAt), chunk.first(whole).subspan(notificationHeader));
    chunk = chunk.subspan(whole);
  }
}

/// A buffer of its own for each frame, and a handler that is looked up.
void cutIntoBuffers(std::span<const std::byte> chunk, const std::map<std::uint16_t, Handler>& handlers) {
  while (const std::size_t whole = lengthOfFirst(chunk)) {
    const auto first = chunk.first(whole);
    const auto frame = std::make_shared<std::vector<std::byte>>(first.begin(), first.end());
    const auto found = handlers.find(layout::readU16(*frame, layout::commandIdAt));
    if (found != handlers.end()) found->second(found->first, std::span(*frame).subspan(notificationHeader));
    chunk = chunk.subspan(whole);
  }
}

void smallNotifications() {
  std::size_t count = 0;
  const auto chunk = smallNotifications(count);
  std::size_t seen = 0;

  NoWriteChannel channel;
  CallbackSlots slots;
  slots.setNotificationHandler(notified, [&seen](const RawMessage& message) { seen += message.payload.size(); });
  MessageFramer framer(1, std::make_shared<const VorlinCodec>(), channel,
                       {.slots = slots, .clientId = [] { return std::uint8_t{0}; }, .setClientId = [](std::uint8_t) {}},
                       nullptr);
  const Handler handler = [&seen](std::uint16_t, std::span<const std::byte> payload) { seen += payload.size(); };
  const std::map<std::uint16_t, Handler> handlers{{notified, handler}};

  constexpr std::size_t chunks = 20;
  const auto perNotification = [&](auto&& cut) {
    return [&seen, cut, count] {
      seen = 0;
      const double nanoseconds = nanosecondsPer(chunks, cut);
      require(seen == chunks * count * 10, "a notification got lost");
      return nanoseconds / static_cast<double>(count);
    };
  };
  const auto cost = leastOf(60, {perNotification([&] { framer.onBytes(chunk); }),
                                 perNotification([&] { cutInPlace(chunk, handler); }),
                                 perNotification([&] { cutIntoBuffers(chunk, handlers); })});
  reportRatio("10-byte notification, beside cutting in place", "ns", cost[0], cost[1], {6, 4});
  reportRatio("10-byte notification, beside a buffer per frame and a look-up", "ns", cost[0], cost[2]);
}

/// Big notifications through a session.
class SessionReceiver {
public:
  explicit SessionReceiver(std::uint16_t port) : session_(configFor(port)) {
    session_.on_notification(streamCommand, [this](const RawMessage& message) {
      received_ += message.payload.size();
      if (received_ >= expected_) done_->count_down();
    });
    require(session_.connect().get().has_value(), "the session does not connect");
  }

  void receive(std::uint32_t count, std::uint32_t size) {
    std::latch done(1);
    done_ = &done;
    received_ = 0;
    expected_ = std::size_t{count} * size;
    require(session_.send(streamCommand, streamPayload(count, size)).get().has_value(), "the session fails");
    done.wait();
  }

private:
  static SessionConfig configFor(std::uint16_t port) {
    SessionConfig config;
    config.host = "127.0.0.1";
    config.port = port;
    return config;
  }

  std::latch* done_ = nullptr;
  std::size_t received_ = 0;
  std::size_t expected_ = 0;
  VorlinSession session_;
};

/// The bare system: receive into a buffer, copy into a frame that is kept.
class BareReceiver {
public:
  explicit BareReceiver(std::uint16_t port) : socket_(connectBlocking(port)), buffer_(chunkSize) {}
  ~BareReceiver() { close(socket_); }
  BareReceiver(const BareReceiver&) = delete;
  BareReceiver& operator=(const BareReceiver&) = delete;

  void receive(std::uint32_t count, std::uint32_t size) {
    sendAll(socket_, requestFrame(streamCommand, streamPayload(count, size)));
    receiveAll(socket_, std::span(buffer_).first(responseHeader));
    frame_.resize(notificationHeader + size);
    for (std::uint32_t i = 0; i < count; ++i)
      for (std::size_t held = 0; held < frame_.size();) {
        const std::size_t room = std::min(buffer_.size(), frame_.size() - held);
        const std::size_t got = receiveSome(socket_, std::span(buffer_).first(room));
        std::memcpy(frame_.data() + held, buffer_.data(), got);
        held += got;
      }
    use(frame_);
  }

private:
  int socket_;
  std::vector<std::byte> buffer_;
  std::vector<std::byte> frame_;
};

void bigNotifications() {
  const Machine machine;
  SessionReceiver session(machine.port());
  BareReceiver bare(machine.port());
  const auto perMebibyte = [](auto& receiver, std::uint32_t count, std::uint32_t size) {
    return [&receiver, count, size] {
      const double seconds = secondsOf([&] { receiver.receive(count, size); });
      return seconds * 1e3 / (static_cast<double>(count) * size / (1 << 20));
    };
  };
  constexpr std::uint32_t mebibyte = 1 << 20;
  auto cost = leastOf(20, {perMebibyte(session, 2, 64 * mebibyte), perMebibyte(bare, 2, 64 * mebibyte)});
  reportRatio("1 MiB of a 64 MiB notification, beside bare recv and a copy", "ms", cost[0], cost[1], {1.3, 1.1});
  cost = leastOf(40, {perMebibyte(session, 64, mebibyte), perMebibyte(bare, 64, mebibyte)});
  reportRatio("1 MiB notification, beside bare recv and a copy", "ms", cost[0], cost[1], {1.3, 1.1});
}

} // namespace
} // namespace vorlinkit::benchmarks

int main() {
  vorlinkit::benchmarks::smallNotifications();
  vorlinkit::benchmarks::bigNotifications();
}
