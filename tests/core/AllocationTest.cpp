// Memory that runs out, at one allocation after the other of a session's whole life. A program of its own, as it
// replaces the allocation functions.
#include "ScriptedMachine.hpp"
#include "VorlinSessionImpl.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include <unistd.h>

namespace {

thread_local bool counted = false; // whether this thread's allocations are
std::atomic<bool> armed{false};
std::atomic<long> untilFailure{0}; // in allocations
std::atomic<long> failures{1};     // in a row, from then on
long current = 0;                  // the allocation that fails in this round

bool fails() noexcept {
  if (!counted || !armed) return false;
  const long left = untilFailure.fetch_sub(1);
  return left <= 0 && left > -failures;
}

} // namespace

void* operator new(std::size_t size) {
  void* const memory = fails() ? nullptr : std::malloc(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

/// Where asio takes its memory from if nobody gives it any.
extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  void* memory = nullptr;
  return fails() || posix_memalign(&memory, alignment, size) != 0 ? nullptr : memory;
}

namespace vorlinkit::test {
namespace {

enum class Where { Caller, IoThread };

enum Command : std::uint16_t {
  GetClientId = 1,
  Echo,
  Among,   // notifications in the same chunk
  Large,   // an answer of several chunks
  Forgets, // every other request
  Refuses, // major error
  Warns,   // minor error
  HangsUp,
  Notified = 100
};

constexpr auto soon = 5s;
const Bytes largePayload(std::size_t{6} << 20, std::byte{0x5A}); // does not fit into a socket's buffer
const Bytes severalChunks(200'000, std::byte{0x5A});

void playMachine(Peer& peer) {
  for (bool forget = true; const auto got = peer.read();) {
    const std::uint16_t id = got->commandId;
    if (id == HangsUp) return peer.reset();
    if (id == Forgets && std::exchange(forget, !forget)) continue;
    Bytes answer = response(id, got->frame.size() > largePayload.size() ? Bytes() : got->payload());
    if (id == GetClientId) answer = response(id, bytes({5}));
    if (id == Among) answer = notification(Notified, severalChunks) + answer + notification(Notified, {});
    if (id == Large) answer = response(id, severalChunks);
    if (id == Refuses) answer = response(id, {}, 4);
    if (id == Warns) answer = response(id, {}, 0, 4);
    peer.write(answer);
  }
}

/// Makes text of everything, as most loggers do.
class TextLogger final : public IVorlinLogger {
public:
  void log(LogLevel, const std::source_location&, std::thread::id, std::chrono::system_clock::time_point,
           std::string_view format, format_args args) override {
    last_ = formatting::vformat(format, args);
  }

private:
  std::string last_;
};

/// What the caller's thread does; when memory has run out it tries again.
auto retried(bool counts, const auto& what) {
  struct Counted {
    explicit Counted(bool on) { counted = on; }
    ~Counted() { counted = false; }
  };
  for (;;) {
    const Counted here(counts);
    try {
      return what();
    } catch (const std::bad_alloc&) {
      continue;
    }
  }
}

/// One session from its making to its end, with a failure somewhere.
class Life {
  auto call(const auto& what) const { return retried(where_ == Where::Caller, what); }

public:
  explicit Life(Where where) : where_(where) {
    config_ = configFor(machine_.port(), 1ms);
    config_.request_timeout = 10ms;
    config_.request_attempts = 2;
  }

  void run() {
    session_ = call([this] { return std::make_unique<VorlinSessionImpl>(config_, logger_); });
    if (where_ == Where::IoThread) asio::post(session_->ioContext(), [] { counted = true; });
    calledBack_ = session_.get();
    registerCallbacks();
    expectReady(call([this] { return session_->connect(); }));
    for (const auto id : {GetClientId, Echo, Among, Large, Forgets, Refuses, Warns})
      expectReady(send(id));
    expectReady(send(Echo, largePayload));
    sendQueued();
    sendCalled();
    call([this] { session_->onFrame([this](FrameDirection, std::span<const std::byte> frame) { keep(frame); }); });
    expectReady(send(Among));
    call([this] { session_->onFrame({}); });
    expectReady(send(HangsUp));
    expectReady(send(Echo));
    expectReady(call([this] { return session_->startDisconnect(); }));
    expectUsable();
    expectReady(fromCallback_);
    std::ranges::for_each(connecting_, [this](auto& connecting) { expectReady(connecting); });
    auto last = send(HangsUp);
    call([this] { VorlinSessionImpl::dispose(std::move(session_)); });
    expectReady(last);
  }

private:
  std::future<Outcome> send(std::uint16_t id, std::span<const std::byte> payload = {}) {
    expectUp();
    return call([&] { return session_->send(id, payload); });
  }

  void sendQueued() {
    std::array<std::future<Outcome>, 4> outcomes;
    std::ranges::generate(outcomes, [this] { return send(Echo); });
    std::ranges::for_each(outcomes, [this](auto& outcome) { expectReady(outcome); });
  }

  /// A call that throws is made again, so whoever was told by it would be told twice.
  void sendCalled() {
    std::atomic<int> told = 0;
    std::promise<void> all;
    const auto tell = [&told, &all](const auto&...) {
      if (++told == 4) all.set_value();
    };
    call([&] { session_->send(Echo, {}, {}, tell); });
    call([&] { session_->send(Forgets, largePayload, {.timeout = std::chrono::milliseconds(5)}, tell); });
    call([&] { session_->startDisconnect([&] { tell(); }); });
    call([&] { session_->connect(tell); });
    expectReady(all.get_future());
    EXPECT_EQ(told, 4) << "allocation " << current;
  }

  void registerCallbacks() {
    call([this] {
      session_->onConnectionStateChanged([this](bool up, const std::string& reason) { note(up, reason); });
    });
    for (std::uint16_t id = Notified; id < Notified + 2; ++id)
      call([this, id] {
        session_->onNotification(id, [this](const RawMessage& message) {
          keep(message.payload);
          if (!fromCallback_.valid()) fromCallback_ = calledBack_->send(Echo, {});
        });
      });
  }

  void note(bool up, const std::string& reason) {
    {
      const std::lock_guard guard(lock_);
      up_ = up;
      changed_.notify_all();
    }
    if (!up) // two at once, so that one is given up while a re-connect is scheduled
      for (auto& connecting : connecting_)
        if (!connecting.valid()) connecting = calledBack_->connect();
    keep(std::as_bytes(std::span(reason)));
  }
  void keep(std::span<const std::byte> bytes) { kept_ = Kept(bytes.begin(), bytes.end()); }

  /// A connection that memory has cost comes back by itself.
  void expectUp() {
    std::unique_lock guard(lock_);
    EXPECT_TRUE(changed_.wait_for(guard, soon, [this] { return up_; })) << "allocation " << current;
  }
  void expectReady(const auto& future) {
    if (!future.valid()) return;
    EXPECT_EQ(future.wait_for(soon), std::future_status::ready) << "allocation " << current;
  }

  void expectUsable() {
    armed = false;
    bool answered = false;
    // One of the state observer's connects may take over, and the time-out is short for a busy computer.
    for (int tries = 0; tries < 20 && !answered; ++tries)
      answered = (session_->isConnected() || session_->connect().get()) && session_->send(Echo, {}).get();
    EXPECT_TRUE(answered) << "allocation " << current;
    armed = true;
  }

  using Kept = std::vector<std::byte>;

  const Where where_;
  ScriptedMachine machine_{{playMachine}};
  SessionConfig config_;
  const std::shared_ptr<IVorlinLogger> logger_ = std::make_shared<TextLogger>();
  std::mutex lock_;
  std::condition_variable changed_;
  bool up_ = false;
  Kept kept_;
  std::future<Outcome> fromCallback_;
  std::array<std::future<std::expected<void, Error>>, 2> connecting_;
  VorlinSessionImpl* calledBack_ = nullptr; // the session, also while it ends
  std::unique_ptr<VorlinSessionImpl> session_;
};

/// Says which allocation ended the program, or made it hang.
void reportEnd(int signal) {
  std::fprintf(stderr, "%s: allocation %ld\n", signal == SIGALRM ? "hangs" : "ends", current);
  std::_Exit(1);
}

class Allocation : public testing::TestWithParam<std::pair<Where, long>> {};

TEST_P(Allocation, MayFailAnywhereInASession) {
  std::signal(SIGABRT, reportEnd);
  std::signal(SIGALRM, reportEnd);
  const auto [where, inARow] = GetParam();
  failures = inARow;
  bool failed = true;
  for (current = 0; failed && !HasFailure(); ++current) {
    alarm(30);
    Life life(where);
    untilFailure = current;
    armed = true;
    life.run();
    armed = false;
    failed = untilFailure < 0;
  }
  alarm(0);
  RecordProperty("allocations", static_cast<int>(current - 1));
  std::printf("%ld allocations\n", current - 1);
  EXPECT_GT(current, 20) << "too few to be a session's";
}

INSTANTIATE_TEST_SUITE_P(OneByOne, Allocation,
                         testing::Values(std::pair(Where::Caller, 1L), std::pair(Where::IoThread, 1L),
                                         std::pair(Where::IoThread, 30L))); // what answers a failure fails, too

} // namespace
} // namespace vorlinkit::test
