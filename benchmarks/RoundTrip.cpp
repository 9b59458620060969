// bench_round_trip: one request and its answer, and what a queue of them costs. Client and server share
// one processor.
#include "Machine.hpp"
#include "Measure.hpp"
#include "RoundTripPeers.hpp"

#include <vorlinkit/VorlinSession.hpp>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace vorlinkit::benchmarks {
namespace {

constexpr std::size_t requestsPerRound = 150;
constexpr std::size_t rounds = 120;

void require(bool good) {
  if (good) return;
  std::fputs("bench_round_trip: the session failed\n", stderr);
  std::_Exit(2);
}

/// Per request, in microseconds.
double microseconds(double seconds, std::size_t requests = requestsPerRound) {
  return seconds * 1e6 / static_cast<double>(requests);
}

void sendQueued(VorlinSession& session, std::span<const std::byte> payload, std::size_t depth) {
  std::vector<std::future<std::expected<RawMessage, Error>>> answers;
  answers.reserve(depth);
  for (std::size_t i = 0; i < depth; ++i)
    answers.push_back(session.send(echoCommand, payload));
  for (auto& answer : answers)
    require(answer.get().has_value());
}

void roundTrips(VorlinSession& session, std::uint16_t port, std::span<const std::byte> payload) {
  BlockingPeer blocking(port, payload);
  CoroutinePeer coroutine(port, payload);
  HandOffPeer handOff(port, payload);
  const auto askSession = [&] {
    for (std::size_t i = 0; i < requestsPerRound; ++i)
      require(session.send(echoCommand, payload).get().has_value());
  };
  const auto askBlocking = [&] {
    for (std::size_t i = 0; i < requestsPerRound; ++i)
      blocking.ask();
  };
  const auto askCoroutine = [&] { coroutine.ask(requestsPerRound); };
  const auto askHandOff = [&] {
    for (std::size_t i = 0; i < requestsPerRound; ++i)
      handOff.ask().get();
  };

  const auto elapsed = leastOf(rounds, {[&] { return microseconds(secondsOf(askSession)); },
                                        [&] { return microseconds(secondsOf(askBlocking)); },
                                        [&] { return microseconds(secondsOf(askCoroutine)); },
                                        [&] { return microseconds(secondsOf(askHandOff)); }});
  reportRatio("Round trip, beside a blocking socket", "us", elapsed[0], elapsed[1], {1.9, 1.6});
  reportRatio("Round trip, beside a lean asio coroutine client", "us", elapsed[0], elapsed[2], {0, 1});
  reportRatio("Round trip, beside a bare hand-off to an I/O thread", "us", elapsed[0], elapsed[3]);

  const auto processorOf = [](const auto& work) {
    const double before = processorSeconds();
    work();
    return microseconds(processorSeconds() - before);
  };
  const auto processor =
      leastOf(rounds, {[&] { return processorOf(askSession); }, [&] { return processorOf(askBlocking); },
                       [&] { return processorOf(askHandOff); }});
  reportRatio("Processor time of a request, beside a blocking socket", "us", processor[0], processor[1], {2.8, 2.2});
  reportRatio("Processor time of a request, beside a bare hand-off", "us", processor[0], processor[2]);
}

void queued(VorlinSession& session, std::span<const std::byte> payload) {
  const auto perRequest = [&](std::size_t depth, std::size_t times) {
    return [&session, payload, depth, times] {
      return microseconds(secondsOf([&] {
                            for (std::size_t i = 0; i < times; ++i)
                              sendQueued(session, payload, depth);
                          }),
                          depth * times);
    };
  };
  const auto cost = leastOf(15, {perRequest(8192, 1), perRequest(64, 128), perRequest(1, 8192)});
  reportRatio("Each of 8,192 requests queued at once, beside one at a time", "us", cost[0], cost[2], {1.1, 1.1});
  reportRatio("Each of 8,192 requests queued at once, beside 64 at once", "us", cost[0], cost[1], {1.1, 1.1});
}

} // namespace
} // namespace vorlinkit::benchmarks

int main() {
  using namespace vorlinkit;
  using namespace vorlinkit::benchmarks;
  stayOnOneProcessor();
  const Machine machine;
  const std::vector<std::byte> payload(16);
  SessionConfig config;
  config.host = "127.0.0.1";
  config.port = machine.port();
  VorlinSession session(config);
  require(session.connect().get().has_value());
  roundTrips(session, machine.port(), payload);
  queued(session, payload);
}
