// Requests that the caller's own thread writes, with an I/O thread that is busy elsewhere.
#include "ScriptedMachine.hpp"

#include <gmock/gmock.h>

namespace vorlinkit::test {
namespace {

using testing::StartsWith;

constexpr std::uint16_t busy = 4; // the notification that keeps the I/O thread in its handler

/// A connected session whose I/O thread does not come back before `release`.
struct BusySession {
  explicit BusySession(const ScriptedMachine& machine) : BusySession(configFor(machine.port(), 1ms)) {}
  explicit BusySession(const SessionConfig& config) : session(config) {
    session.on_notification(busy, [this](const RawMessage&) {
      entered.set_value();
      release.get_future().wait();
    });
    EXPECT_TRUE(session.connect().get());
    entered.get_future().wait();
  }

  std::promise<void> entered;
  std::promise<void> release;
  VorlinSession session; // last: its I/O thread uses the others to its end
};

TEST(CallerWrite, ReachesTheMachineAtOnceAndIsNotOvertaken) {
  std::promise<void> firstArrived;
  std::vector<std::uint16_t> order;
  ScriptedMachine machine({[&](Peer& peer) {
    peer.write(notification(busy, {}));
    while (const auto got = peer.read()) {
      order.push_back(got->commandId);
      if (order.size() == 1) firstArrived.set_value();
      peer.write(response(got->commandId, got->payload()));
    }
  }});
  BusySession busySession(machine);
  std::vector<std::future<Outcome>> answers;
  for (std::uint16_t id = 21; id < 25; ++id)
    answers.push_back(busySession.session.send(id, bytes({id})));
  EXPECT_EQ(firstArrived.get_future().wait_for(10s), std::future_status::ready);
  busySession.release.set_value();
  for (auto& answer : answers)
    EXPECT_TRUE(answer.get());
  EXPECT_TRUE(busySession.session.send(25).get()) << "callers may write again";
  busySession.session.disconnect();
  EXPECT_EQ(order, (std::vector<std::uint16_t>{21, 22, 23, 24, 25}));
}

TEST(CallerWrite, IsAnsweredHoweverLateTheIoThreadIs) {
  constexpr auto timeout = 10ms;
  std::atomic<int> sent = 0;
  std::promise<void> answered;
  ScriptedMachine machine({[&](Peer& peer) {
    peer.write(notification(busy, {}));
    while (const auto got = peer.read()) {
      ++sent;
      peer.write(response(got->commandId, got->payload()));
      answered.set_value();
    }
  }});
  SessionConfig config = configFor(machine.port());
  config.request_timeout = timeout;
  config.request_attempts = 3;
  BusySession busySession(config);
  auto outcome = busySession.session.send(9, bytes({1}));
  answered.get_future().wait();
  std::this_thread::sleep_for(2 * timeout); // the lateness itself
  busySession.release.set_value();
  EXPECT_TRUE(outcome.get());
  EXPECT_EQ(sent, 1) << "the command was not carried out twice";
}

TEST(CallerWrite, FailsWithItsConnectionAndIsNoGhostOnTheNext) {
  for (const bool writeFails : {false, true}) {
    std::promise<void> connected; // a reset that comes earlier may fail the connect
    std::promise<void> gone;
    std::promise<std::uint16_t> next;
    ScriptedMachine machine({[&](Peer& peer) {
                               peer.write(notification(busy, {}));
                               connected.get_future().wait();
                               if (!writeFails) peer.read();
                               peer.reset();
                               gone.set_value();
                             },
                             [&](Peer& peer) {
                               next.set_value(peer.read().value().commandId);
                               peer.write(response(9, {}));
                               peer.ignore();
                             }});
    BusySession busySession(machine);
    connected.set_value();
    std::promise<void> up;
    busySession.session.on_connection_state_changed([&](bool isUp, const std::string&) {
      if (isUp) up.set_value();
    });
    if (writeFails) gone.get_future().wait();
    auto lost = busySession.session.send(8);
    if (!writeFails) gone.get_future().wait();
    busySession.release.set_value();
    EXPECT_THAT(errorOf(lost.get()).message, StartsWith("Disconnected: "));
    up.get_future().wait();
    EXPECT_TRUE(busySession.session.send(9).get());
    EXPECT_EQ(next.get_future().get(), 9);
  }
}

TEST(CallerWrite, RunsOutOfTimeAndIsTriedAgain) {
  std::atomic<int> unanswered = 0;
  ScriptedMachine machine({[&](Peer& peer) {
    while (const auto got = peer.read())
      if (got->commandId == 7)
        ++unanswered;
      else
        peer.write(response(got->commandId, {}));
  }});
  SessionConfig config = configFor(machine.port());
  config.request_timeout = 60ms;
  config.request_attempts = 2;
  VorlinSession session(config);
  ASSERT_TRUE(session.connect().get());
  // With the timer at rest; behind a request that left it running; and after one that timed out.
  const std::vector<std::uint16_t> before[] = {{}, {8}, {7}};
  int expected = 0;
  for (const auto& ids : before) {
    for (const std::uint16_t id : ids) {
      EXPECT_EQ(session.send(id).get().has_value(), id == 8);
      if (id == 7) expected += 2;
    }
    const auto started = std::chrono::steady_clock::now();
    auto outcome = session.send(7);
    ASSERT_EQ(outcome.wait_for(10s), std::future_status::ready);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 120ms);
    EXPECT_EQ(errorOf(outcome.get()).message, "Request timeout for commandId=7 after 2 attempt(s)");
    EXPECT_TRUE(session.send(8).get());
    EXPECT_EQ(unanswered, expected += 2);
  }
}

} // namespace
} // namespace vorlinkit::test
