// The road of one request, over a real socket.
#include "RecordingLogger.hpp"
#include "ScriptedMachine.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <future>

namespace vorlinkit::test {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

Bytes payloadOf(const Outcome& result) {
  if (!result) return text(result.error().message);
  return {result->payload.begin(), result->payload.end()};
}

TEST(Session, ExchangesRequestsAndNotifications) {
  ScriptedMachine machine({[](Peer& peer) {
    while (const auto got = peer.read())
      peer.write(got->commandId == 1 ? response(1, bytes({5}))
                                     : notification(4, bytes({1})) + response(got->commandId, got->payload()) +
                                           notification(4, bytes({2})));
  }});
  const auto logger = std::make_shared<RecordingLogger>(LogLevel::info);
  SessionConfig config = configFor(machine.port());
  config.host = "localhost";
  VorlinSession session(config, logger);
  EXPECT_EQ(payloadOf(session.send(11).get()), text("Not connected"));

  std::vector<std::pair<FrameDirection, Bytes>> frames;
  std::promise<void> bothNotified;
  std::atomic<int> notified = 0;
  session.on_notification(4, [](const RawMessage&) { FAIL() << "replaced"; });
  session.on_notification(4, [&](const RawMessage& message) {
    EXPECT_EQ(message.payload.size(), 1U);
    if (++notified == 2) bothNotified.set_value();
  });
  session.on_frame([&](FrameDirection direction, std::span<const std::byte> frame) {
    frames.emplace_back(direction, Bytes(frame.begin(), frame.end()));
  });
  ASSERT_TRUE(session.connect().get());
  EXPECT_TRUE(session.is_connected());
  EXPECT_EQ(payloadOf(session.send(1).get()), bytes({5}));
  EXPECT_EQ(session.client_id(), 5);
  EXPECT_EQ(payloadOf(session.send(500, bytes({7, 8})).get()), bytes({7, 8}));
  bothNotified.get_future().get();
  session.disconnect();
  EXPECT_FALSE(session.is_connected());
  EXPECT_EQ(session.client_id(), 0);
  EXPECT_EQ(frames[0], std::pair(FrameDirection::Tx, request(1, 0, {})));
  EXPECT_EQ(frames[2], std::pair(FrameDirection::Tx, request(500, 5, bytes({7, 8}))));
  EXPECT_EQ(frames.size(), 6U);
  EXPECT_THAT(logger->records(),
              ElementsAre("2 src/TcpTransport Connecting to localhost:" + std::to_string(machine.port()),
                          "2 src/TcpTransport Connected successfully", "2 src/MessageFramer Client ID assigned: 5",
                          StartsWith("3 src/TcpTransport Disconnected: "),
                          "3 src/VorlinSessionImpl Connection lost, session state reset (clientId=0, pending requests "
                          "failed)"));
}

TEST(Session, FailsEverythingPendingWhenTheConnectionIsLost) {
  std::promise<void> go;
  ScriptedMachine machine({[&](Peer& peer) {
                             peer.read();
                             go.get_future().wait();
                             peer.write(text("VR") + bytes({1, 3, 0})); // must not poison the next connection
                             peer.close();
                           },
                           &Peer::echo});
  const auto logger = std::make_shared<RecordingLogger>(LogLevel::info);
  SessionConfig config = configFor(machine.port(), 20ms);
  config.request_attempts = 3;
  std::vector<std::string> states;
  VorlinSession session(config, logger);
  noteStates(session, states);
  ASSERT_TRUE(session.connect().get());
  std::vector<std::future<Outcome>> pending;
  for (int i = 0; i < 1000; ++i)
    pending.push_back(session.send(9, bytes({1})));
  go.set_value();
  for (auto& outcome : pending) {
    const Error error = errorOf(outcome.get());
    EXPECT_EQ(error.code, ErrorCode::Transport);
    EXPECT_THAT(error.message, StartsWith("Disconnected: "));
  }
  ASSERT_TRUE(logger->await("Connected successfully", 2)) << "re-connects by itself";
  EXPECT_EQ(payloadOf(session.send(10, bytes({3})).get()), bytes({3}));
  session.disconnect();
  EXPECT_EQ(logger->count("Disconnected: "), 2);
  EXPECT_EQ(logger->count("Connection lost"), 2);
  EXPECT_EQ(logger->count("Scheduling reconnect in 20ms"), 1);
  EXPECT_EQ(logger->count("for commandId=10"), 0) << "no ghost of the first connection answers on the second";
  EXPECT_THAT(states, ElementsAre("up", StartsWith("Disconnected: "), "up", StartsWith("Disconnected: ")));
}

/// Sends without a future; what comes of it can be waited for all the same.
std::future<Outcome> sendCalled(VorlinSession& session, std::uint16_t commandId, SendOptions options = {}) {
  const auto told = std::make_shared<std::promise<Outcome>>();
  session.send(commandId, {}, options, [told, &session](Outcome outcome) {
    EXPECT_TRUE(session.is_io_thread());
    told->set_value(std::move(outcome));
  });
  return told->get_future();
}

TEST(Session, CompletionsAreToldOnceWhatFuturesAreTold) {
  ScriptedMachine machine({[](Peer& peer) {
    while (const auto got = peer.read()) {
      if (got->commandId == 8) peer.write(response(8, {}, 0x20));
      if (got->commandId == 9) peer.write(response(9, bytes({1})));
    }
  }});
  const auto logger = std::make_shared<RecordingLogger>(LogLevel::err);
  std::optional<VorlinSession> session(std::in_place, configFor(machine.port()), logger);
  EXPECT_EQ(errorOf(sendCalled(*session, 9).get()), (Error{ErrorCode::Transport, "Not connected"}));
  std::promise<bool> connected;
  session->connect([&](const auto& outcome) { connected.set_value(outcome.has_value()); });
  ASSERT_TRUE(connected.get_future().get());
  for (const bool observed : {false, true}) { // with an observer no caller writes
    if (observed) session->on_frame([](FrameDirection, std::span<const std::byte>) {});
    EXPECT_EQ(payloadOf(sendCalled(*session, 9).get()), bytes({1}));
    EXPECT_EQ(errorOf(sendCalled(*session, 8).get()).majorError, 0x20U);
    EXPECT_EQ(errorOf(sendCalled(*session, 7, {.timeout = 20ms}).get()).code, ErrorCode::Timeout);
  }
  session->send(9, {}, {}, [](const Outcome&) { throw std::runtime_error("no use"); });
  session->send(9, {}, {}, [](const Outcome&) { throw 1; });
  auto unanswered = sendCalled(*session, 7);
  std::promise<void> closed;
  session->start_disconnect([&] { closed.set_value(); });
  closed.get_future().wait();
  EXPECT_THAT(errorOf(unanswered.get()).message, StartsWith("Disconnected: "));
  EXPECT_EQ(logger->count("4 src/VorlinSessionImpl completion exception: no use"), 1);
  EXPECT_EQ(logger->count("4 src/VorlinSessionImpl completion exception: unknown"), 1);

  ASSERT_TRUE(session->connect().get());
  std::atomic<int> told = 0;
  for (int i = 0; i < 100; ++i)
    session->send(7, {}, {}, [&](const Outcome& outcome) { told += outcome ? 1000 : 1; });
  session.reset();
  EXPECT_EQ(told, 100) << "nobody waits for a session that is gone";
}

TEST(Session, ATimeOutOfItsOwnIsKeptByWhateverRoad) {
  ScriptedMachine machine({&Peer::ignore});
  VorlinSession session(configFor(machine.port())); // 15 s
  ASSERT_TRUE(session.connect().get());
  auto patient = session.send(8); // leaves the timer running
  auto hasty = session.send(9, {}, {.timeout = 30ms});
  EXPECT_EQ(hasty.wait_for(50ms), std::future_status::timeout) << "its time begins when it is written";
  session.disconnect();
  ASSERT_TRUE(session.connect().get());
  for (int round = 0; round < 2; ++round) // the timer runs for a connection that is gone
    EXPECT_EQ(errorOf(session.send(9, {}, {.timeout = 30ms}).get()).code, ErrorCode::Timeout);
}

TEST(Session, ARequestOfAnOldConnectionNeverGoesOutOnTheNext) {
  std::atomic<int> strays = 0;
  ScriptedMachine machine({[&](Peer& peer) { // payloads are the number of the connection that they are for
    std::optional<Bytes> own;
    for (int answered = 0; answered < 20; ++answered) {
      const auto got = peer.read();
      if (!got) return;
      if (!own) own = got->payload();
      if (got->payload() != *own) ++strays;
      peer.write(response(got->commandId, got->payload()));
    }
    peer.reset();
  }});
  VorlinSession session(configFor(machine.port(), 1ms));
  EXPECT_EQ(session.connection(), 0U);
  ASSERT_TRUE(session.connect().get());
  const std::uint64_t first = session.connection();
  EXPECT_GT(first, 0U);
  std::vector<std::thread> senders;
  for (std::uint16_t sender = 0; sender < 8; ++sender)
    senders.emplace_back([&, sender] {
      std::uint64_t before = 0;
      while (session.connection() < first + 40) {
        const std::uint64_t number = session.connection();
        if (number == 0) continue;
        EXPECT_GE(number, before);
        before = number;
        const Bytes payload = bigEndian(static_cast<std::uint32_t>(number), 4);
        const auto outcome = session.send(100 + sender, payload, {.connection = number}).get();
        EXPECT_TRUE(outcome || outcome.error().code == ErrorCode::Transport);
      }
    });
  for (auto& sender : senders)
    sender.join();
  EXPECT_EQ(strays, 0);
  EXPECT_EQ(errorOf(session.send(9, {}, {.connection = first}).get()).message, "Not connected");
  session.disconnect();
  EXPECT_EQ(session.connection(), 0U);
}

TEST(Session, CallbacksMayThrowRegisterAndSend) {
  ScriptedMachine machine({[](Peer& peer) {
    peer.write(notification(4, {}));
    peer.echo();
  }});
  const auto logger = std::make_shared<RecordingLogger>(LogLevel::warn);
  VorlinSession session(configFor(machine.port()), logger);
  std::promise<std::future<Outcome>> fromCallback;
  session.on_connection_state_changed([&](bool, const std::string&) {
    EXPECT_TRUE(session.is_io_thread());
    session.on_connection_state_changed([](bool, const std::string&) { throw 1; });
    session.on_notification(4, [&](const RawMessage&) { fromCallback.set_value(session.send(12, bytes({6}))); });
    throw std::runtime_error("observer failed");
  });
  ASSERT_TRUE(session.connect().get());
  EXPECT_FALSE(session.is_io_thread());
  EXPECT_EQ(payloadOf(fromCallback.get_future().get().get()), bytes({6}));
  session.disconnect();
  const std::string told = "4 src/VorlinSessionImpl on_connection_state_changed callback exception: ";
  EXPECT_EQ(logger->count(told + "observer failed"), 1);
  EXPECT_EQ(logger->count(told + "unknown"), 1);
}

TEST(Session, AChunkHookThatThrowsStopsNothing) {
  ScriptedMachine machine({&Peer::echo});
  const auto logger = std::make_shared<RecordingLogger>(LogLevel::err);
  VorlinSession session(configFor(machine.port()), logger);
  session.set_chunk_hooks([] { throw std::runtime_error("no lock"); }, [] { throw 1; });
  ASSERT_TRUE(session.connect().get());
  EXPECT_EQ(payloadOf(session.send(3, bytes({1})).get()), bytes({1}));
  session.disconnect();
  EXPECT_THAT(logger->records(), ElementsAre("4 src/VorlinSessionImpl chunk hook exception: no lock",
                                             "4 src/VorlinSessionImpl chunk hook exception: unknown"));
}

TEST(Session, ALoggerThatThrowsStopsNothing) {
  struct Throwing final : IVorlinLogger {
    void log(LogLevel, const std::source_location&, std::thread::id, std::chrono::system_clock::time_point,
             std::string_view format, format_args) override {
      if (format == "logger callback exception: {}") ++told;
      throw std::runtime_error("disk full");
    }
    std::atomic<int> told = 0;
  };
  ScriptedMachine machine({&Peer::echo});
  const auto logger = std::make_shared<Throwing>();
  VorlinSession session(configFor(machine.port()), logger);
  ASSERT_TRUE(session.connect().get());
  EXPECT_EQ(payloadOf(session.send(3, bytes({1})).get()), bytes({1}));
  EXPECT_EQ(logger->told, 2);
  logger->set_log_level(LogLevel::off);
  session.disconnect();
  EXPECT_EQ(logger->told, 2);
}

TEST(Session, DeliversLargeAndManyNotificationsInOrder) {
  constexpr std::uint32_t many = 100'000;
  const Bytes large(std::size_t{64} << 20, std::byte{0x5A});
  ScriptedMachine machine({[&](Peer& peer) {
    Bytes batch;
    for (std::uint32_t i = 0; i < many; ++i)
      batch = std::move(batch) + notification(7, bigEndian(i, 4));
    peer.write(batch);
    peer.write(notification(8, large));
    peer.read();
  }});
  std::uint32_t expected = 0;
  std::promise<bool> arrived;
  VorlinSession session(configFor(machine.port()));
  session.on_notification(7, [&](const RawMessage& message) {
    if (bigEndian(expected, 4) == Bytes(message.payload.begin(), message.payload.end())) ++expected;
  });
  session.on_notification(8, [&](const RawMessage& message) {
    arrived.set_value(std::equal(message.payload.begin(), message.payload.end(), large.begin(), large.end()));
  });
  ASSERT_TRUE(session.connect().get());
  EXPECT_TRUE(arrived.get_future().get());
  EXPECT_EQ(expected, many);
}

TEST(Session, SixtyFourThreadsSendWhileConnectionsKeepBreaking) {
  ScriptedMachine machine({[](Peer& peer) {
    for (int answered = 0; answered < 40; ++answered) {
      const auto got = peer.read();
      if (!got) return;
      peer.write(response(got->commandId, got->payload()));
    }
    peer.reset();
  }});
  const char* const wanted = std::getenv("VORLINKIT_STRESS_REQUESTS");
  const int requests = wanted ? std::atoi(wanted) : 1000;
  VorlinSession session(configFor(machine.port(), 1ms));
  ASSERT_TRUE(session.connect().get());
  std::atomic<int> answered = 0;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> senders;
  for (int sender = 0; sender < 64; ++sender)
    senders.emplace_back([&, sender] {
      for (int i = 0; answered < requests; ++i) {
        const Bytes payload = bytes({sender, i & 0xFF, (i >> 8) & 0xFF, (i >> 16) & 0xFF});
        const auto result = session.send(static_cast<std::uint16_t>(100 + sender), payload).get();
        if (result) ++answered;
        if (result ? payloadOf(result) != payload : result.error().code != ErrorCode::Transport) ++wrong;
      }
    });
  for (auto& sender : senders)
    sender.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_GE(machine.accepted(), requests / 40);
}

} // namespace
} // namespace vorlinkit::test
