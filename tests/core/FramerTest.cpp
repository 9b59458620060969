#include "Frames.hpp"
#include "MessageFramer.hpp"
#include "RecordingLogger.hpp"

#include <vorlinkit/VorlinCodec.hpp>

#include <gmock/gmock.h>

#include <deque>
#include <stdexcept>

namespace vorlinkit::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// The transport's place, taken by lists of what was written, how writes are to end, and what has arrived.
class FakeChannel final : public ITransportWriteChannel {
public:
  std::optional<Written> write(std::vector<std::byte> frame, std::size_t) noexcept override {
    written.push_back(std::move(frame));
    if (onWrite) onWrite();
    if (failures.empty()) return Written();
    const Error failure = failures.front();
    failures.pop_front();
    return std::unexpected(failure);
  }
  void readArrived() noexcept override {
    if (onRead) onRead();
  }
  asio::any_io_executor getExecutor() override { return context.get_executor(); }

  asio::io_context context;
  std::vector<Bytes> written;
  std::deque<Error> failures;
  std::function<void()> onWrite;
  std::function<void()> onRead;
};

struct Framer : testing::Test {
  FakeChannel channel;
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
  CallbackSlots slots;
  int clientId = 3;
  std::chrono::milliseconds requestTimeout{};
  std::unique_ptr<MessageFramer> framer;

  void SetUp() override { make(1); }
  /// In place of the framer that was there; with a time-out that never comes unless the test is about it.
  void make(std::uint32_t attempts, std::chrono::milliseconds timeout = 1h) {
    requestTimeout = timeout;
    if (framer) TearDown();
    framer = std::make_unique<MessageFramer>(
        attempts, std::make_shared<VorlinCodec>(), channel,
        MessageFramer::Callbacks{.slots = slots,
                                 .clientId = [this] { return static_cast<std::uint8_t>(clientId); },
                                 .setClientId = [this](std::uint8_t id) { clientId = id; }},
        logger);
  }
  void TearDown() override {
    framer->failAll(stoppedError(), true);
    settle();
    framer.reset();
  }

  void settle() {
    channel.context.restart();
    channel.context.poll();
  }
  std::future<MessageFramer::Outcome> send(std::uint16_t commandId, const Bytes& payload = {}) {
    auto request = std::make_unique<FutureRequest>(commandId, payload, SendOptions{requestTimeout});
    auto outcome = request->future();
    framer->submit(std::move(request));
    settle();
    return outcome;
  }
  void receive(const Bytes& stream) {
    framer->onBytes(stream);
    settle();
  }
  static bool ready(const std::future<MessageFramer::Outcome>& outcome) {
    return outcome.wait_for(0s) == std::future_status::ready;
  }
  static Error errorOf(std::future<MessageFramer::Outcome>& outcome) {
    if (!ready(outcome)) return {{}, "still waiting"};
    const auto result = outcome.get();
    return result ? Error{{}, "succeeded"} : result.error();
  }
  /// What was logged, as "level text".
  std::vector<std::string> records() const {
    auto all = logger->records();
    for (auto& record : all)
      record.replace(record.find(" src/MessageFramer "), std::strlen(" src/MessageFramer "), " ");
    return all;
  }
  /// For requests that time out by themselves.
  void runUntilReady(const std::future<MessageFramer::Outcome>& outcome) {
    channel.context.restart();
    while (!ready(outcome))
      channel.context.run_one_for(1s);
  }
};

TEST_F(Framer, LogsWhatIsUnexpectedRefusalsWarningsAndRetries) {
  make(2);
  receive(response(7, {}) + notification(4, {}));
  channel.failures = {{ErrorCode::Transport, "Write failed: x"}};
  auto refused = send(5);
  receive(response(5, {}, 0x21));
  EXPECT_EQ(errorOf(refused), (Error{ErrorCode::Protocol,
                                     "VORLIN protocol error (majorError): HeaderLengthIncorrect (0x00000001) | "
                                     "ExclusiveControlRequired (0x00000020)",
                                     0x21}));
  auto warned = send(5);
  receive(response(5, {}, 0, 1));
  EXPECT_TRUE(warned.get());
  EXPECT_EQ(channel.written, std::vector<Bytes>(3, request(5, 3, {})));
  EXPECT_THAT(records(), ElementsAre("3 Received response for commandId=7 but no active pending request found",
                                     "3 No handler for notification commandId=4",
                                     "3 Write failed for commandId=5, retrying attempt 2 of 2",
                                     "4 VORLIN protocol error (majorError): HeaderLengthIncorrect (0x00000001) | "
                                     "ExclusiveControlRequired (0x00000020)",
                                     "3 VORLIN protocol warning (minorError): UnknownRequestVersion (0x00000001)"));
}

TEST_F(Framer, LooksAtWhatHasArrivedBeforeItGivesUp) {
  for (const auto timeout : {5ms, 0ms, -3600000ms}) {
    make(1, timeout);
    channel.onRead = [&] { framer->onBytes(notification(4, {}) + response(9, bytes({1}))); };
    auto answered = send(9);
    runUntilReady(answered);
    EXPECT_TRUE(answered.get());
    channel.onRead = nullptr;
    auto unanswered = send(9);
    runUntilReady(unanswered);
    EXPECT_EQ(errorOf(unanswered), (Error{ErrorCode::Timeout, "Request timeout for commandId=9 after 1 attempt(s)"}));
    EXPECT_FALSE(framer->isQuiet()) << "its answer may still come";
  }
}

TEST_F(Framer, ALossDuringAWriteIsTheEndOfTheRequest) {
  make(3);
  channel.onWrite = [this] { framer->failAll({ErrorCode::Transport, "gone"}, false); };
  channel.failures = {{ErrorCode::Transport, "Write failed: x"}};
  auto during = send(9);
  EXPECT_EQ(errorOf(during).message, "gone");
  EXPECT_THAT(records(), ElementsAre()) << "no retry of what has failed";
  channel.onWrite = nullptr;
  auto fine = send(10);
  receive(response(10, {}));
  EXPECT_TRUE(fine.get());
}

TEST_F(Framer, LearnsTheClientIdFromCommandOne) {
  auto two = send(1);
  receive(response(1, bytes({0, 7})));
  EXPECT_EQ(clientId, 3) << "two bytes are no client id";
  auto one = send(1);
  receive(response(1, bytes({7})));
  EXPECT_EQ(clientId, 7);
  EXPECT_EQ(records().back(), "2 Client ID assigned: 7");
  auto refused = send(1);
  receive(response(1, bytes({9}), 2));
  EXPECT_EQ(clientId, 7);
}

TEST_F(Framer, JunkInTheStreamFailsTheRequestInFlight) {
  auto first = send(9);
  receive(text("XX") + response(9, {}));
  EXPECT_EQ(errorOf(first), (Error{ErrorCode::Protocol, "Invalid protocol ID (expected 'VR')"}));
  auto second = send(9);
  receive(text("VR") + bytes({1, 9}));
  EXPECT_EQ(errorOf(second), (Error{ErrorCode::Protocol, "Unknown message type"}));
  auto third = send(9);
  Bytes odd = response(9, {});
  odd[5] = std::byte{17};
  receive(odd + response(9, bytes({1})));
  EXPECT_TRUE(third.get()) << "a frame that does not decode is dropped, the next one counts";
  EXPECT_THAT(records(), ElementsAre("4 Invalid protocol ID in RX stream", "4 Unknown message type",
                                     "4 Message decode error: Invalid Response header length"));
}

TEST_F(Framer, ContainsWhatCallbacksThrow) {
  make(2);
  slots.setNotificationHandler(4, [](const RawMessage&) { throw std::runtime_error("oops"); });
  slots.setNotificationHandler(5, [](const RawMessage&) { throw 5; });
  receive(notification(4, {}) + notification(5, {}));
  slots.setFrameObserver([](FrameDirection, std::span<const std::byte>) { throw std::runtime_error("no"); });
  receive(notification(6, {}));
  auto refused = send(9);
  EXPECT_EQ(errorOf(refused), (Error{ErrorCode::Transport, "onFrame callback exception: no"}));
  slots.setFrameObserver([](FrameDirection direction, std::span<const std::byte>) {
    if (direction == FrameDirection::Tx) throw 7;
  });
  auto unknown = send(9);
  EXPECT_EQ(errorOf(unknown), (Error{ErrorCode::Transport, "onFrame callback exception: unknown"}));
  EXPECT_TRUE(channel.written.empty());
  EXPECT_THAT(records(),
              ElementsAre("4 Notification handler exception for commandId=4: oops",
                          "4 Notification handler exception for commandId=5: unknown",
                          "4 onFrame(Rx) callback exception: no", "3 No handler for notification commandId=6",
                          "3 onFrame(Tx) callback failed for commandId=9, retrying attempt 2 of 2",
                          "3 onFrame(Tx) callback failed for commandId=9, retrying attempt 2 of 2"));
}

} // namespace
} // namespace vorlinkit::test
