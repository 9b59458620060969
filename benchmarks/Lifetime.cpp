// bench_lifetime: what sessions cost while nothing happens, and how fast they let go.
#include "Machine.hpp"
#include "Measure.hpp"

#include <vorlinkit/VorlinSession.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace vorlinkit::benchmarks {
namespace {

using Sessions = std::vector<std::unique_ptr<VorlinSession>>;
constexpr std::size_t sessionCount = 50;
constexpr std::size_t pendingCount = 1000;

void require(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "bench_lifetime: %s\n", what);
  std::_Exit(2);
}

double residentKibibytes() {
  std::size_t total = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

SessionConfig configFor(std::uint16_t port) {
  SessionConfig config;
  config.host = "127.0.0.1";
  config.port = port;
  config.connection_timeout = std::chrono::seconds(30);
  config.reconnect_delay = std::chrono::seconds(30);
  config.request_timeout = std::chrono::seconds(60);
  return config;
}

std::unique_ptr<VorlinSession> connected(std::uint16_t port) {
  auto session = std::make_unique<VorlinSession>(configFor(port));
  require(session->connect().get().has_value(), "a session does not connect");
  return session;
}

/// Threads that wait in recv, the least that anything with a thread per connection can cost.
class BlockedThreads {
public:
  explicit BlockedThreads(std::uint16_t port) {
    for (std::size_t i = 0; i < sessionCount; ++i) {
      sockets_.push_back(connectBlocking(port));
      threads_.emplace_back([socket = sockets_.back()] {
        char byte;
        static_cast<void>(recv(socket, &byte, 1, 0));
      });
    }
  }
  ~BlockedThreads() {
    for (const int socket : sockets_)
      shutdown(socket, SHUT_RDWR);
    for (auto& thread : threads_)
      thread.join();
    for (const int socket : sockets_)
      close(socket);
  }
  BlockedThreads(const BlockedThreads&) = delete;
  BlockedThreads& operator=(const BlockedThreads&) = delete;

private:
  std::vector<int> sockets_;
  std::vector<std::thread> threads_;
};

/// Processor milliseconds while this process does nothing for a while.
double idleMilliseconds() {
  const double before = processorSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(3));
  return (processorSeconds() - before) * 1e3;
}

void idle() {
  const Machine machine;
  const auto measure = [](auto&& make) {
    const double before = residentKibibytes();
    const auto held = make();
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // until threads have come to rest
    return std::pair{(residentKibibytes() - before) / static_cast<double>(sessionCount), idleMilliseconds()};
  };
  // Sessions first: memory that the others have given back must not hide theirs.
  const auto [sessionMemory, sessionTime] = measure([&] {
    Sessions sessions;
    for (std::size_t i = 0; i < sessionCount; ++i)
      sessions.push_back(connected(machine.port()));
    return sessions;
  });
  const auto [threadMemory, threadTime] = measure([&] { return std::make_unique<BlockedThreads>(machine.port()); });
  reportValue("Processor time of 50 idle sessions in 3 s, beside 50 threads blocked in recv", "ms", sessionTime,
              threadTime, {1, 1});
  reportValue("Memory of an idle session, beside a thread blocked in recv", "KiB", sessionMemory, threadMemory,
              {110, 110});
}

/// The far end of one connection, in this process, so that the moment of a loss is known.
class Listener {
public:
  explicit Listener(int backlog = 128) : socket_(listenOnLoopback(port_, backlog)) {}
  ~Listener() { close(socket_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  int acceptOne() const { return accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC); }
  std::uint16_t port() const { return port_; }

private:
  std::uint16_t port_ = 0;
  int socket_;
};

using Answers = std::vector<std::future<std::expected<RawMessage, Error>>>;

Answers sendPending(VorlinSession& session) {
  Answers answers;
  for (std::size_t i = 0; i < pendingCount; ++i)
    answers.push_back(session.send(silentCommand));
  return answers;
}

void awaitFailures(Answers& answers) {
  for (auto& answer : answers)
    require(!answer.get().has_value(), "a request was answered");
}

double worstOf(std::size_t times, const std::function<double()>& measure) {
  double worst = 0;
  for (std::size_t i = 0; i < times; ++i)
    worst = std::max(worst, measure());
  return worst * 1e3;
}

void loss() {
  const Listener listener;
  const double worst = worstOf(15, [&] {
    const auto session = connected(listener.port());
    const int farEnd = listener.acceptOne();
    auto answers = sendPending(*session);
    std::byte request[requestHeader];
    receiveAll(farEnd, request); // the first is in flight
    return secondsOf([&] {
      close(farEnd);
      awaitFailures(answers);
    });
  });
  reportValue("1,000 pending requests failed after a loss, worst of 15", "ms", worst, 0, {20, 20});
}

/// A session in a state in which it is told to end, and what belongs to that state.
struct Situation {
  std::unique_ptr<VorlinSession> session;
  Answers answers;
  std::future<std::expected<void, Error>> attempt;
};

Situation idleConnection(std::uint16_t port) { return {connected(port), {}, {}}; }

Situation pendingRequests(std::uint16_t port) {
  auto session = connected(port);
  auto answers = sendPending(*session);
  return {std::move(session), std::move(answers), {}};
}

Situation underTraffic(std::uint16_t port) {
  auto session = connected(port);
  require(session->send(streamCommand, streamPayload(100'000'000, 10)).get().has_value(), "no stream");
  return {std::move(session), {}, {}};
}

/// The port belongs to a listener whose queue is full, so that connecting to it never ends.
Situation connecting(std::uint16_t fullPort) {
  auto session = std::make_unique<VorlinSession>(configFor(fullPort));
  auto attempt = session->connect();
  require(attempt.wait_for(std::chrono::milliseconds(20)) == std::future_status::timeout, "a full queue has room");
  return {std::move(session), {}, std::move(attempt)};
}

Situation waitingToReconnect(std::uint16_t) {
  const auto closedPort = Listener().port();
  auto session = std::make_unique<VorlinSession>(configFor(closedPort));
  require(!session->connect().get().has_value(), "a closed port accepts");
  return {std::move(session), {}, {}};
}

/// How long `end` takes in the worst of all situations.
double worstEnd(const std::function<void(std::unique_ptr<VorlinSession>&)>& end) {
  const Machine machine;
  const Listener full(0);
  const int queued = connectBlocking(full.port());
  double worst = 0;
  const auto meet = [&](Situation (*make)(std::uint16_t), std::uint16_t port) {
    worst = std::max(worst, worstOf(5, [&] {
                       Situation situation = make(port);
                       const double seconds = secondsOf([&] { end(situation.session); });
                       situation.session.reset();
                       awaitFailures(situation.answers);
                       return seconds;
                     }));
  };
  meet(idleConnection, machine.port());
  meet(pendingRequests, machine.port());
  meet(underTraffic, machine.port());
  meet(connecting, full.port());
  meet(waitingToReconnect, 0);
  close(queued);
  return worst;
}

} // namespace
} // namespace vorlinkit::benchmarks

int main() {
  using namespace vorlinkit::benchmarks;
  idle();
  loss();
  reportValue("disconnect(), worst of five states", "ms", worstEnd([](auto& session) { session->disconnect(); }), 0,
              {100, 100});
  reportValue("Destruction, worst of five states", "ms", worstEnd([](auto& session) { session.reset(); }), 0,
              {250, 250});
}
