// Connecting, and everything that can come of it.
#include "NameLookup.hpp"
#include "Platform.hpp"
#include "RecordingLogger.hpp"
#include "ScriptedMachine.hpp"

#include <gmock/gmock.h>

#include <deque>

namespace vorlinkit::test {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

using Clock = std::chrono::steady_clock;

/// A port of loopback that takes no connection: its backlog is full, so attempts hang.
struct DeafPort {
  DeafPort() : acceptor(context) {
    acceptor.open(asio::ip::tcp::v4());
    acceptor.bind({asio::ip::address_v4::loopback(), 0});
    acceptor.listen(0);
    for (int i = 0; i < 4; ++i) // begun, never looked at
      fillers.emplace_back(context).async_connect(acceptor.local_endpoint(), [](std::error_code) {});
  }
  std::uint16_t port() const { return acceptor.local_endpoint().port(); }

  asio::io_context context;
  asio::ip::tcp::acceptor acceptor;
  std::deque<asio::ip::tcp::socket> fillers;
};

std::uint16_t closedPort() {
  asio::io_context context;
  return asio::ip::tcp::acceptor(context, {asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

TEST(Transport, ReportsARefusedConnection) {
  const auto logger = std::make_shared<RecordingLogger>();
  std::vector<std::string> states;
  VorlinSession session(configFor(closedPort(), 1000ms), logger);
  noteStates(session, states);
  const Error refused{ErrorCode::Transport, "Failed to connect: Connection refused"};
  EXPECT_EQ(errorOf(session.connect().get()), refused);
  session.disconnect();
  EXPECT_THAT(states, ElementsAre("Connection failed: Connection refused"));
  EXPECT_THAT(logger->records(), ElementsAre(StartsWith("2 src/TcpTransport Connecting to 127.0.0.1:"),
                                             "4 src/TcpTransport Connection failed: Connection refused",
                                             "3 src/TcpTransport Scheduling reconnect in 1000ms"));
}

TEST(Transport, GivesUpAtTheDeadline) {
  DeafPort deaf;
  SessionConfig config = configFor(deaf.port());
  config.connection_timeout = 50ms;
  std::vector<std::string> states;
  VorlinSession session(config);
  noteStates(session, states);
  const auto started = Clock::now();
  const Error late{ErrorCode::Timeout, "Failed to connect: Connection timeout"};
  EXPECT_EQ(errorOf(session.connect().get()), late);
  EXPECT_GE(Clock::now() - started, 50ms);
  EXPECT_LT(Clock::now() - started, 1s);
  EXPECT_THAT(states, ElementsAre("Connection failed: Connection timeout"));
}

TEST(Transport, AcceptsTheStrangestDurations) {
  ScriptedMachine machine({&Peer::echo});
  using std::chrono::milliseconds;
  for (const auto timeout : {milliseconds::max(), milliseconds(std::numeric_limits<std::int32_t>::max())}) {
    SessionConfig config = configFor(machine.port());
    config.connection_timeout = config.request_timeout = timeout;
    VorlinSession session(config);
    ASSERT_TRUE(session.connect().get());
    EXPECT_TRUE(session.send(2).get());
  }
  SessionConfig config = configFor(DeafPort().port());
  config.connection_timeout = milliseconds::min();
  EXPECT_FALSE(VorlinSession(config).connect().get());
}

TEST(Transport, ANewerConnectTakesOver) {
  DeafPort deaf;
  SessionConfig config = configFor(deaf.port());
  config.connection_timeout = 60s;
  VorlinSession session(config);
  auto first = session.connect();
  auto second = session.connect();
  EXPECT_EQ(errorOf(first.get()).code, ErrorCode::Transport);
  EXPECT_EQ(second.wait_for(0s), std::future_status::timeout);
  session.disconnect();
  EXPECT_FALSE(second.get());
}

TEST(Transport, ConnectingAnewWhileConnectedReportsTheLossOnce) {
  ScriptedMachine machine({&Peer::echo});
  const auto logger = std::make_shared<RecordingLogger>();
  std::vector<std::string> states;
  VorlinSession session(configFor(machine.port(), 5ms), logger);
  noteStates(session, states);
  ASSERT_TRUE(session.connect().get());
  ASSERT_TRUE(session.connect().get());
  EXPECT_TRUE(session.send(3).get());
  EXPECT_THAT(states, ElementsAre("up", StartsWith("Disconnected: "), "up"));
  EXPECT_EQ(logger->count("Scheduling reconnect in 5ms"), 1);
  ASSERT_TRUE(session.connect().get()); // gives the re-connect that must not happen twice the time it would take
  EXPECT_TRUE(session.send(3).get());   // by now the machine has counted this connection
  EXPECT_EQ(machine.accepted(), 3);
}

TEST(Transport, DisconnectEndsReconnecting) {
  const auto logger = std::make_shared<RecordingLogger>();
  VorlinSession session(configFor(closedPort(), 1ms), logger);
  session.connect().get();
  ASSERT_TRUE(logger->await("Connection failed", 3));
  session.disconnect();
  const auto attempts = logger->count("Connecting to");
  EXPECT_FALSE(session.connect().get());
  EXPECT_GE(logger->count("Connecting to"), attempts + 1);
}

TEST(Transport, EndsAWriteToAPeerThatTakesNothing) {
  std::promise<void> done;
  ScriptedMachine machine({[&](Peer&) { done.get_future().wait(); }});
  SessionConfig config = configFor(machine.port());
  config.stall_timeout = 300ms;
  VorlinSession session(config);
  ASSERT_TRUE(session.connect().get());
  auto stuck = session.send(9, Bytes(std::size_t{64} << 20));
  const bool ended = stuck.wait_for(20s) == std::future_status::ready;
  done.set_value();
  ASSERT_TRUE(ended);
  EXPECT_EQ(errorOf(stuck.get()), (Error{ErrorCode::Transport, "Disconnected: Connection timed out"}));
}

TEST(Transport, APeerThatReadsSlowlyIsNotCutOff) {
  constexpr std::size_t size = std::size_t{6} << 20;
  ScriptedMachine machine({[](Peer& peer) {
    const auto slow = peer.readSlowly(18 + size, 64 << 10, 5ms);
    peer.write(response(9, bytes({slow == 18 + size})));
    peer.ignore();
  }});
  SessionConfig config = configFor(machine.port());
  config.request_timeout = 50ms; // long over before the last byte is taken
  config.stall_timeout = 250ms;
  VorlinSession session(config);
  ASSERT_TRUE(session.connect().get());
  const auto result = session.send(9, Bytes(size)).get();
  ASSERT_TRUE(result || result.error().code == ErrorCode::Timeout) << result.error().message;
  EXPECT_TRUE(session.is_connected());
}

TEST(Platform, TellsASocketThatAnswersItself) {
  asio::io_context context;
  asio::ip::tcp::socket itself(context, {asio::ip::address_v4::loopback(), 0});
  itself.connect(itself.local_endpoint());
  EXPECT_TRUE(platform::connectedToItself(itself));
  asio::ip::tcp::acceptor acceptor(context, {asio::ip::address_v4::loopback(), 0});
  asio::ip::tcp::socket other(context);
  other.connect(acceptor.local_endpoint());
  EXPECT_FALSE(platform::connectedToItself(other));
}

TEST(NameLookup, FindsNamesAndTellsNobodyWhenAbandoned) {
  const struct {
    const char* host;
    const char* address; // null if it is not waited for
  } cases[] = {{"localhost", "127.0.0.1"}, {"127.0.0.9", "127.0.0.9"}, {"::1", "::1"}, {"no-such-host.invalid", {}}};
  for (const auto& [host, address] : cases) {
    asio::io_context context;
    const auto work = asio::make_work_guard(context);
    NameLookup lookup(context.get_executor(), host, 80);
    for (int again = 0; again < 3; ++again) {
      bool told = false;
      lookup.find([&](const NameLookup::Result&) { told = true; });
      lookup.abandon();
      context.poll();
      EXPECT_EQ(told, address && std::string_view(host) != "localhost") << host << ": only a number is found at once";
    }
    if (!address) continue;
    std::optional<NameLookup::Result> found;
    lookup.find([&](NameLookup::Result result) { found = std::move(result); });
    while (!found)
      context.run_one_for(1s);
    std::vector<std::string> addresses;
    for (const auto& endpoint : found->endpoints)
      addresses.push_back(endpoint.address().to_string());
    EXPECT_THAT(addresses, testing::Contains(address));
  }
}

TEST(NameLookup, RefusesAHostThatTheSystemWouldReadOnlyInPart) {
  SessionConfig config = configFor(closedPort());
  config.host = std::string("127.0.0.1\0.example", 18);
  EXPECT_EQ(errorOf(VorlinSession(config).connect().get()).message, "Failed to connect: Invalid argument");
}

} // namespace
} // namespace vorlinkit::test
