#pragma once

#include "Asio.hpp"
#include "HandlerMemory.hpp"

#include <chrono>
#include <functional>

namespace vorlinkit {

/// Wakes the I/O thread when a moment that keeps being moved has come. Arming a timer is a system call, so the timer
/// is left running when the moment moves later or is called off: requests that are answered in time cost no timer at
/// all. Owned by the framer; I/O thread.
class Deadline {
public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `onTimer` runs whenever the timer has fired, which may be before the moment; it sets the next one.
  Deadline(const asio::any_io_executor& executor, std::function<void()> onTimer)
      : timer_(executor), onTimer_(std::move(onTimer)) {}
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  /// TimePoint::max() calls the moment off; the timer may still fire once.
  void set(TimePoint moment) {
    if (moment != TimePoint::max() && (!armed_ || moment < timer_.expiry())) arm(moment);
  }
  /// Nothing is pending any more.
  void stop() {
    timer_.cancel();
    armed_ = false;
  }
  /// When the timer fires, which may be before the moment; TimePoint::max() when it does not run.
  TimePoint firesAt() const noexcept { return armed_ ? timer_.expiry() : TimePoint::max(); }

private:
  void arm(TimePoint moment) {
    timer_.expires_at(moment); // ends an earlier wait
    armed_ = false;
    timer_.async_wait(HandlerIn(memory_, [this](std::error_code ended) {
      if (ended) return; // set anew, or stopped
      armed_ = false;
      onTimer_();
    }));
    armed_ = true;
  }

  asio::steady_timer timer_;
  std::function<void()> onTimer_;
  bool armed_ = false;
  HandlerMemory memory_;
};

} // namespace vorlinkit
