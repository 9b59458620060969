#pragma once

#include "Asio.hpp"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace vorlinkit {

/// `start` plus `wait`, at the limits of the clock instead of beyond them.
std::chrono::steady_clock::time_point saturatingAdd(std::chrono::steady_clock::time_point start,
                                                    std::chrono::milliseconds wait);

/// Tells when a moment that keeps being moved has come. Arming a timer is a system call, so the timer is
/// left running when the moment moves later or is called off, and set again only when it fires early:
/// requests that are answered in time cost no timer at all. I/O thread.
class Deadline {
public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `onTimer` runs whenever the timer has fired, before the moment is looked at; it may set a new one.
  Deadline(const asio::any_io_executor& executor, std::function<void()> onTimer, std::function<void()> onPassed);
  ~Deadline();
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  void set(TimePoint moment);
  /// Calls the moment off; the timer may still fire once, without effect.
  void clear() { moment_ = TimePoint::max(); }
  bool passed() const { return moment_ <= std::chrono::steady_clock::now(); }
  /// Calls the moment off and stops the timer, so that nothing of it is pending any more.
  void stop();
  /// Any thread: whether the timer runs. What has been published before this is read as true is seen by
  /// the next `onTimer`.
  bool armed() const noexcept { return armed_; }

private:
  void onFired();
  void arm();

  asio::steady_timer timer_;
  std::function<void()> onTimer_;
  std::function<void()> onPassed_;
  TimePoint moment_ = TimePoint::max();
  std::atomic<bool> armed_{false};
};

} // namespace vorlinkit
