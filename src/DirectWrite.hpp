// The write of a request by its caller's own thread.
#pragma once

#include "PendingRequest.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <system_error>
#include <vector>

namespace vorlinkit {

/// What a caller has written, on its way to the I/O thread.
struct WrittenRequest {
  std::unique_ptr<PendingRequest> request; // null when the I/O thread has taken it over before
  std::chrono::steady_clock::time_point at;
  std::size_t frameLength = 0;
  std::vector<std::byte> unwritten; // the frame, if the socket has not taken it whole
  std::size_t from = 0;             // the first byte that it has not taken
  std::error_code failure;          // why the connection cannot go on
};

/// Lets one caller at a time write its own request while the line is quiet, which spares the switch to the I/O
/// thread. Owns the right to write. Its lock is held to change the state, not to write; a read may hold it.
///
/// Closed: only the I/O thread writes. Open: nothing is in flight, and the next caller may write. Taken: a caller is
/// writing. Handed over: its request waits for the I/O thread, and nobody writes. The answer may be there while the
/// caller has not come back from its write; the I/O thread then takes the request over early. Before it writes itself,
/// and before the socket is closed, it claims or detaches, which waits for the caller's end.
class DirectWrite {
public:
  enum class State { Closed, Open, Taken, TakenOver, HandedOver };
  using TimePoint = std::chrono::steady_clock::time_point;
  /// Writes what fits without waiting; yields how much that was. Nothing at all is no failure.
  using WriteSome = std::function<std::expected<std::size_t, std::error_code>(std::span<const std::byte>)>;

  enum class Result {
    NotWritten,    // the request is still the caller's, to be sent by the I/O thread
    Written,       // the I/O thread will see it by itself: by its timer or by the answer
    WrittenAndWake // the I/O thread has to be woken
  };

  /// Any thread: whether it is worth to make a frame for tryWrite().
  bool isOpen() const noexcept { return state_.load(std::memory_order_relaxed) == State::Open; }
  /// Any thread: writes `frame` if the line is quiet and `stillGood` says so; `request` is then taken.
  Result tryWrite(std::unique_ptr<PendingRequest>& request, std::vector<std::byte>&& frame,
                  const std::function<bool()>& stillGood);

  // I/O thread
  /// The line on which to write, from its connection on. It stays Closed until it is opened.
  void attach(WriteSome line);
  /// Before the socket is closed; returns when no caller writes to it any more. What was handed over stays.
  void detach();
  /// From here on nobody else writes, until open(). Yields what a caller has written meanwhile.
  std::optional<WrittenRequest> claim();
  /// Before received bytes are taken off the line, which may hold the answer to what a caller has written.
  struct Reading {
    std::optional<WrittenRequest> written;     // as soon as it may have been written
    std::unique_lock<std::mutex> nobodyWrites; // without one: held, until the bytes are taken
  };
  /// Whatever a caller writes after it, the bytes that are read next are no answer to it.
  Reading beginRead();
  /// Everything is answered. `wakesAt`: when the I/O thread will look by itself, TimePoint::max() for never. False
  /// without a line.
  bool open(TimePoint wakesAt);

private:
  bool take(std::unique_ptr<PendingRequest>& request, std::size_t frameLength, const std::function<bool()>& stillGood);
  Result finish(std::expected<std::size_t, std::error_code> written, std::unique_ptr<PendingRequest>& request,
                std::vector<std::byte>&& frame);
  bool isSeenInTime() const noexcept;
  void awaitWriter(std::unique_lock<std::mutex>& guard);
  void enter(State state) noexcept { state_.store(state, std::memory_order_relaxed); }

  std::mutex lock_;
  std::condition_variable writerDone_;
  std::atomic<State> state_{State::Closed}; // changed under the lock
  WriteSome line_;
  TimePoint wakesAt_ = TimePoint::max();
  bool openAgain_ = false; // when the caller whose request was taken over has come back
  std::optional<WrittenRequest> handedOver_;
};

} // namespace vorlinkit
