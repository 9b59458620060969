// The write by a caller's own thread: every transition, and the races that its states are there for. No sockets.
#include "DirectWrite.hpp"
#include "StallWatch.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <latch>
#include <thread>

namespace vorlinkit::test {
namespace {

using namespace std::chrono_literals;
using Result = DirectWrite::Result;

constexpr auto timeout = 1h;
constexpr auto never = DirectWrite::TimePoint::max();
constexpr auto past = DirectWrite::TimePoint(); // a timer that will fire in time for everything

std::unique_ptr<PendingRequest> request(std::uint16_t commandId = 9) {
  return std::make_unique<FutureRequest>(commandId, std::span<const std::byte>(), SendOptions{timeout});
}

Result tryWrite(DirectWrite& direct, std::unique_ptr<PendingRequest> given = request(), bool stillGood = true) {
  return direct.tryWrite(given, std::vector<std::byte>(18), [&] { return stillGood; });
}

TEST(DirectWrite, IsOpenOnlyBetweenOpenAndTheNextClaimWriteOrDetach) {
  DirectWrite direct;
  const auto takesAll = [](std::span<const std::byte> bytes) { return bytes.size(); };
  EXPECT_FALSE(direct.open(past)) << "no line";
  direct.attach(takesAll);
  EXPECT_EQ(tryWrite(direct), Result::NotWritten) << "closed";
  EXPECT_FALSE(direct.claim());

  ASSERT_TRUE(direct.open(past));
  EXPECT_TRUE(direct.isOpen());
  EXPECT_EQ(tryWrite(direct, request(), false), Result::NotWritten) << "the frame is stale";
  EXPECT_EQ(tryWrite(direct), Result::Written);
  EXPECT_EQ(tryWrite(direct), Result::NotWritten) << "handed over";
  EXPECT_FALSE(direct.open(past)) << "handed over";
  direct.detach();
  const auto claimed = direct.claim();
  ASSERT_TRUE(claimed) << "what was handed over survives the line";
  EXPECT_EQ(claimed->request->commandId, 9);
  EXPECT_FALSE(direct.claim());

  direct.attach(takesAll);
  ASSERT_TRUE(direct.open(never));
  EXPECT_EQ(tryWrite(direct), Result::WrittenAndWake) << "no timer runs";
  direct.claim();
  ASSERT_TRUE(direct.open(std::chrono::steady_clock::now() + 2 * timeout));
  EXPECT_EQ(tryWrite(direct), Result::WrittenAndWake) << "the timer fires too late for this request";
  direct.claim();
  ASSERT_TRUE(direct.open(past));
  direct.detach();
  EXPECT_EQ(tryWrite(direct), Result::NotWritten) << "detached";
  direct.attach(takesAll);
  ASSERT_TRUE(direct.open(past));
  EXPECT_FALSE(direct.claim());
  EXPECT_EQ(tryWrite(direct), Result::NotWritten) << "claimed";
}

TEST(DirectWrite, HandsOnWhatTheLineDidNotTake) {
  std::expected<std::size_t, std::error_code> taken = 0;
  DirectWrite direct;
  direct.attach([&](std::span<const std::byte>) { return taken; });
  ASSERT_TRUE(direct.open(past));
  EXPECT_EQ(tryWrite(direct), Result::NotWritten) << "nothing was written, so the I/O thread may do it all";
  EXPECT_TRUE(direct.isOpen());
  taken = 5;
  EXPECT_EQ(tryWrite(direct), Result::WrittenAndWake);
  EXPECT_EQ(direct.claim()->from, 5U);
  ASSERT_TRUE(direct.open(past));
  taken = std::unexpected(std::make_error_code(std::errc::broken_pipe));
  EXPECT_EQ(tryWrite(direct), Result::WrittenAndWake);
  EXPECT_EQ(direct.claim()->failure, std::errc::broken_pipe);
}

TEST(DirectWrite, ClaimAndDetachWaitForTheEndOfAWrite) {
  for (const bool detaches : {false, true}) {
    DirectWrite direct;
    std::promise<void> writing;
    std::promise<void> goOn;
    std::atomic<bool> written = false;
    direct.attach([&](std::span<const std::byte> bytes) {
      writing.set_value();
      goOn.get_future().wait();
      written = true;
      return bytes.size();
    });
    ASSERT_TRUE(direct.open(past));
    std::thread caller([&] { EXPECT_EQ(tryWrite(direct), Result::Written); });
    writing.get_future().wait();
    auto ioThread = std::async(std::launch::async, [&] {
      if (detaches) direct.detach();
      EXPECT_TRUE(direct.claim());
      return written.load();
    });
    EXPECT_EQ(ioThread.wait_for(20ms), std::future_status::timeout) << "else it could write into the caller's frame";
    goOn.set_value();
    EXPECT_TRUE(ioThread.get());
    caller.join();
  }
}

TEST(DirectWrite, ARequestIsTakenOverWhileItsCallerStillWrites) {
  for (const std::size_t taken : {18UZ, 5UZ, 0UZ}) {
    for (const bool answered : {true, false}) {
      DirectWrite direct;
      direct.attach([&](std::span<const std::byte>) {
        // The I/O thread meanwhile: the answer is there.
        EXPECT_EQ(direct.beginRead().written.value().request->commandId, 9);
        EXPECT_FALSE(direct.beginRead().written);
        EXPECT_TRUE(!answered || direct.open(past));
        EXPECT_EQ(tryWrite(direct), Result::NotWritten);
        return taken;
      });
      ASSERT_TRUE(direct.open(past));
      EXPECT_EQ(tryWrite(direct), taken == 18 ? Result::Written : Result::WrittenAndWake);
      EXPECT_EQ(direct.isOpen(), taken == 18 && answered);
      const auto rest = direct.claim();
      ASSERT_EQ(rest.has_value(), taken != 18);
      if (!rest) continue;
      EXPECT_FALSE(rest->request);
      EXPECT_EQ(rest->from, taken);
      EXPECT_EQ(rest->unwritten.size(), 18U);
    }
  }
}

TEST(DirectWrite, NothingThatIsWrittenDuringAReadCanBeAnsweredByIt) {
  DirectWrite direct;
  direct.attach([](std::span<const std::byte> bytes) { return bytes.size(); });
  ASSERT_TRUE(direct.open(past));
  auto reading = direct.beginRead();
  EXPECT_FALSE(reading.written);
  auto caller = std::async(std::launch::async, [&] { return tryWrite(direct); });
  EXPECT_EQ(caller.wait_for(20ms), std::future_status::timeout) << "else an earlier answer would be taken for its own";
  reading.nobodyWrites.unlock();
  EXPECT_EQ(caller.get(), Result::Written);
  reading = direct.beginRead();
  EXPECT_TRUE(reading.written) << "it is known before its answer is read";
  EXPECT_FALSE(reading.nobodyWrites.owns_lock());
}

TEST(DirectWrite, ManyCallersAndTheIoThreadNeverWriteAtOnceAndLoseNothing) {
  DirectWrite direct;
  std::atomic<int> writers = 0;
  std::atomic<int> clashes = 0;
  const auto writeOne = [&] {
    if (writers++ != 0) ++clashes;
    std::this_thread::yield();
    --writers;
  };
  direct.attach([&](std::span<const std::byte> bytes) {
    writeOne();
    return bytes.size();
  });
  constexpr int callers = 8;
  std::atomic<int> accepted = 0;
  std::atomic<int> running = callers;
  std::latch begin(callers + 1);
  std::vector<std::thread> threads;
  for (int caller = 0; caller < callers; ++caller)
    threads.emplace_back([&] {
      begin.arrive_and_wait();
      for (int i = 0; i < 5000; ++i)
        if (tryWrite(direct) != Result::NotWritten) ++accepted;
      --running;
    });
  begin.arrive_and_wait();
  int claimed = 0;
  while (running > 0) {
    direct.open(past);
    std::this_thread::yield();
    if (direct.beginRead().written) ++claimed;
    if (direct.claim()) ++claimed;
    writeOne(); // as the I/O thread does, with all claimed
  }
  for (auto& thread : threads)
    thread.join();
  if (direct.claim()) ++claimed;
  EXPECT_EQ(clashes, 0);
  EXPECT_EQ(claimed, accepted);
  EXPECT_GT(claimed, 0);
}

TEST(StallWatch, CountsFromTheLastByteThatWasAcknowledged) {
  const StallWatch::TimePoint start{1h};
  StallWatch watch(800ms);
  EXPECT_EQ(watch.start(start, 1000), start + 100ms);
  EXPECT_EQ(watch.look(start + 700ms, 1000), start + 800ms);
  EXPECT_EQ(watch.look(start + 750ms, 999), start + 850ms) << "one byte is enough";
  EXPECT_TRUE(watch.look(start + 1549ms, 999));
  EXPECT_FALSE(watch.look(start + 1550ms, 999));
  StallWatch patient(std::chrono::milliseconds::max());
  patient.start(start, 1);
  EXPECT_TRUE(patient.look(start + 10000h, 1));
}

} // namespace
} // namespace vorlinkit::test
