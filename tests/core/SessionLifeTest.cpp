// The end of a session, in every state and on every thread.
#include "RecordingLogger.hpp"
#include "ScriptedMachine.hpp"
#include "VorlinSessionImpl.hpp"

#include <gmock/gmock.h>

#include <latch>
#include <sys/wait.h>
#include <unistd.h>

namespace vorlinkit::test {
namespace {

using Clock = std::chrono::steady_clock;

TEST(SessionLife, EndsQuicklyInEveryState) {
  ScriptedMachine silent({&Peer::ignore});
  const std::pair<const char*, std::function<void(VorlinSession&)>> states[] = {
      {"idle", [](VorlinSession&) {}},
      {"connecting", [](VorlinSession& session) { session.connect(); }},
      {"waiting to re-connect", [](VorlinSession& session) { session.connect().get(); }},
      {"connected", [](VorlinSession& session) { session.connect().get(); }},
      {"under traffic", [](VorlinSession& session) {
         session.connect().get();
         for (int i = 0; i < 1000; ++i)
           session.send(3);
       }}};
  for (const auto& [name, reach] : states) {
    const bool refused = std::string_view(name) == "waiting to re-connect";
    for (const bool disconnectFirst : {true, false}) {
      auto session = std::make_unique<VorlinSession>(configFor(refused ? std::uint16_t{1} : silent.port(), 1h));
      reach(*session);
      auto last = session->send(9);
      auto started = Clock::now();
      if (disconnectFirst) session->disconnect();
      EXPECT_LT(Clock::now() - started, 100ms) << name;
      started = Clock::now();
      session.reset();
      EXPECT_LT(Clock::now() - started, 250ms) << name;
      ASSERT_EQ(last.wait_for(0s), std::future_status::ready) << name;
      EXPECT_FALSE(last.get()) << name;
    }
  }
}

TEST(SessionLife, ALookupThatHangsHoldsNobodyUp) {
  SessionConfig config = configFor(1, 1h);
  config.host = "no-such-host.invalid";
  auto session = std::make_unique<VorlinSession>(config);
  auto connecting = session->connect();
  const auto started = Clock::now();
  session->disconnect();
  EXPECT_LT(Clock::now() - started, 100ms);
  EXPECT_FALSE(connecting.get());
  auto again = session->connect();
  session.reset();
  EXPECT_LT(Clock::now() - started, 350ms);
  EXPECT_FALSE(again.get());
}

TEST(SessionLife, MayEndInsideItsOwnCallback) {
  ScriptedMachine machine({[](Peer& peer) {
    peer.write(notification(4, {}));
    peer.echo();
  }});
  struct Canary {
    std::promise<void> gone;
    ~Canary() { gone.set_value(); }
  };
  auto canary = std::make_shared<Canary>();
  auto freed = canary->gone.get_future();
  auto holder = std::make_shared<std::unique_ptr<VorlinSession>>(new VorlinSession(configFor(machine.port(), 1h)));
  (*holder)->on_notification(4, [holder, canary](const RawMessage&) {
    (*holder)->disconnect();
    auto pending = (*holder)->send(5);
    auto connecting = (*holder)->connect();
    holder->reset();
  });
  canary.reset();
  auto connected = (*holder)->connect();
  EXPECT_EQ(freed.wait_for(10s), std::future_status::ready) << "the I/O thread frees what the callback let go of";
  connected.get();
}

TEST(SessionLife, EveryFutureIsAnsweredWhenTheIoThreadDies) {
  ScriptedMachine machine({&Peer::ignore});
  const auto logger = std::make_shared<RecordingLogger>(LogLevel::err);
  VorlinSessionImpl session(configFor(machine.port(), 1h), logger);
  ASSERT_TRUE(session.connect().get());
  auto inFlight = session.send(9, {});
  auto queued = session.send(10, {});
  std::atomic<int> told = 0;
  session.send(12, {}, {}, [&](const Outcome&) { ++told; });
  asio::post(session.ioContext(), [] { throw std::runtime_error("broken handler"); });
  EXPECT_FALSE(inFlight.get());
  EXPECT_FALSE(queued.get());
  EXPECT_FALSE(session.send(11, {}).get());
  EXPECT_FALSE(session.connect().get());
  session.send(12, {}, {}, [&](const Outcome&) { ++told; });
  session.connect([&](const auto&) { ++told; });
  session.startDisconnect().wait();
  EXPECT_EQ(told, 3);
  EXPECT_EQ(logger->count("4 src/VorlinSessionImpl io_context run exception: broken handler"), 1);
}

TEST(SessionLife, SessionsMayDisconnectEachOtherFromTheirCallbacks) {
  ScriptedMachine machine({[](Peer& peer) {
    peer.write(notification(4, {}));
    peer.echo();
  }});
  std::latch bothAreThere(2);
  VorlinSession first(configFor(machine.port()));
  VorlinSession second(configFor(machine.port()));
  std::promise<void> down[2];
  const auto disconnects = [&](VorlinSession& one, VorlinSession& other, std::promise<void>& isDown) {
    one.on_notification(4, [&](const RawMessage&) {
      bothAreThere.arrive_and_wait();
      other.disconnect();
    });
    one.on_connection_state_changed([&](bool connected, const std::string&) {
      if (!connected) isDown.set_value();
    });
  };
  disconnects(first, second, down[0]);
  disconnects(second, first, down[1]);
  auto connecting = first.connect();
  ASSERT_TRUE(second.connect().get());
  ASSERT_TRUE(connecting.get());
  for (auto& closed : down)
    EXPECT_EQ(closed.get_future().wait_for(10s), std::future_status::ready);
}

TEST(SessionLife, AForkedChildDropsASessionWithoutWaiting) {
  ScriptedMachine machine({&Peer::echo});
  auto session = std::make_unique<VorlinSession>(configFor(machine.port(), 1h));
  std::promise<void> inObserver;
  std::promise<void> release;
  session->on_connection_state_changed([&](bool connected, const std::string&) { // its lock is held meanwhile
    if (!connected) return;
    inObserver.set_value();
    release.get_future().wait();
  });
  auto connecting = session->connect();
  inObserver.get_future().wait();
  const pid_t child = fork();
  if (child == 0) {
    alarm(5);
    int told = 0;
    session->send(3, {}, {}, [&](const Outcome& outcome) { told += outcome ? 0 : 1; });
    session->connect([&](const auto& outcome) { told += outcome ? 0 : 1; });
    session->start_disconnect([&] { ++told; });
    const bool lost = !session->is_connected() && !session->send(3).get() && !session->connect().get() && told == 3;
    session->disconnect();
    session->on_notification(4, {});
    session->on_frame({});
    session->on_connection_state_changed({});
    session.reset();
    _exit(lost ? 0 : 1);
  }
  release.set_value();
  EXPECT_TRUE(connecting.get());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(session->send(3).get()) << "the parent goes on";
}

} // namespace
} // namespace vorlinkit::test
