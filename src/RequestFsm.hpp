// What becomes of a request: decisions only, no sockets, no timers, no clock.
#pragma once

#include "LateAnswers.hpp"
#include "PendingRequest.hpp"
#include "TrafficCounters.hpp"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace vorlinkit {

/// Sends requests one at a time, matches responses to them, and decides on time-outs, retries and outcomes.
///
/// Told of events by MessageFramer, which then carries out what next() says until that is nothing. Owns the queue and
/// the request in flight. I/O thread.
class RequestFsm {
public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Outcome = PendingRequest::Outcome;

  enum class RetryCause { WriteFailed, ObserverThrew, TimedOut };

  struct Nothing {};
  /// Encode and write an attempt; answered by notSendable, observerThrew, written or writeFailed.
  struct Send {
    const PendingRequest& request;
  };
  /// Write on where the caller stopped; answered by written or writeFailed.
  struct WriteRest {
    std::vector<std::byte> frame;
    std::size_t from;
  };
  /// Time is up: take what has arrived off the line, then say lineRead().
  struct ReadLine {};
  struct Complete {
    std::unique_ptr<PendingRequest> request;
    Outcome outcome;
  };
  struct LogRetry {
    RetryCause cause;
    std::uint16_t commandId;
    std::uint32_t attempt;
    std::uint32_t attempts;
  };
  using Action = std::variant<Nothing, Send, WriteRest, ReadLine, Complete, LogRetry>;

  /// What a response means to those who look on.
  struct Reception {
    enum class Kind { Unexpected, Refused, Accepted } kind;
    std::string text;                     // of the refusal, or of a warning that came along
    std::optional<std::uint8_t> clientId; // that the machine has given
  };

  RequestFsm(std::uint32_t attempts, TrafficCounters& counters);

  // -- events
  void submit(std::unique_ptr<PendingRequest> request) noexcept;
  /// A first attempt that its caller has written. Nothing else is in flight or waits.
  void submitWritten(std::unique_ptr<PendingRequest> request, TimePoint at, std::size_t frameLength) noexcept;
  /// The caller could not write all of it: the frame, and the first byte that is left.
  void unwritten(std::vector<std::byte> frame, std::size_t from) noexcept;
  /// The frame of an attempt is made.
  void encoded(std::size_t frameLength) noexcept;
  void written(TimePoint now) noexcept;
  void writeFailed(Error error) noexcept;
  void notSendable(Error error) noexcept;
  void observerThrew(Error error) noexcept;
  Reception response(const RawMessage& message);
  /// The stream can no longer be cut into frames.
  void protocolFault(const char* text) noexcept;
  void timePassed(TimePoint now) noexcept;
  /// Nobody will say timePassed(), so nothing may wait for it.
  void notTimed(Error error) noexcept;
  void lineRead() noexcept;
  /// The connection is gone: everything that waits fails, and nothing of it is sent later.
  void lost(const Error& error) noexcept;
  /// For good: what comes later fails, too.
  void stop() noexcept;

  // -- what to do
  Action next() noexcept;
  /// When to say timePassed(); TimePoint::max() for never.
  TimePoint deadline() const noexcept { return deadline_; }
  /// Nothing is in flight, waits or is being written, and no late answer can come: a request that is written now
  /// overtakes no other, lands in no other frame and gets no other's answer.
  bool isQuiet() const noexcept;

private:
  enum class Stage {
    Idle,    // no request is active
    ToSend,  // the next attempt is due
    Sending, // it is being written
    Waiting, // for its answer
    TimeUp,  // time has run out; the line is to be read
    Reading, // it is being read
    Retry,   // others get a turn, then comes the next attempt
  };

  bool mayRetry() const noexcept { return attempt_ < attempts_; }
  bool isOver() const noexcept;
  void retry(RetryCause cause) noexcept;
  void settle(Outcome outcome) noexcept;
  void settleNow(Error error) noexcept;
  void timedOut() noexcept;
  void failAll(const Error& error) noexcept;
  Complete complete() noexcept;

  const std::uint32_t attempts_; // at least 1
  TrafficCounters& counters_;

  LinkedList<PendingRequest> queue_;
  std::unique_ptr<PendingRequest> active_;
  Stage stage_ = Stage::Idle;
  std::uint32_t attempt_ = 0; // of the active request, from 1
  std::optional<Outcome> outcome_;
  bool overAtOnce_ = false; // the outcome does not wait for the end of the write
  bool writing_ = false;    // a frame; its request may be over
  std::optional<WriteRest> rest_;
  std::optional<LogRetry> log_;
  TimePoint deadline_ = TimePoint::max();
  LateAnswers lateAnswers_;
  LinkedList<PendingRequest> failed_; // whose callers are still to be told
  Error failure_;
  bool stopped_ = false;
};

} // namespace vorlinkit
