#include "Deadline.hpp"

#include <utility>

namespace vorlinkit {

std::chrono::steady_clock::time_point saturatingAdd(std::chrono::steady_clock::time_point start,
                                                    std::chrono::milliseconds wait) {
  using Clock = std::chrono::steady_clock;
  using std::chrono::milliseconds;
  const auto roomAbove = std::chrono::floor<milliseconds>(Clock::time_point::max() - start);
  const auto roomBelow = -std::chrono::floor<milliseconds>(start.time_since_epoch());
  if (wait >= roomAbove) return Clock::time_point::max();
  if (wait <= roomBelow) return Clock::time_point{};
  return start + wait;
}

Deadline::Deadline(const asio::any_io_executor& executor, std::function<void()> onTimer, std::function<void()> onPassed)
    : timer_(executor), onTimer_(std::move(onTimer)), onPassed_(std::move(onPassed)) {}

Deadline::~Deadline() { stop(); }

void Deadline::set(TimePoint moment) {
  moment_ = moment;
  if (moment != TimePoint::max() && (!armed_ || moment < timer_.expiry())) arm();
}

void Deadline::stop() {
  clear();
  timer_.cancel();
  armed_ = false;
}

void Deadline::arm() {
  timer_.expires_at(moment_); // ends an earlier wait
  armed_ = true;
  timer_.async_wait([this](std::error_code ended) {
    if (!ended) onFired(); // otherwise set anew, or stopped
  });
}

void Deadline::onFired() {
  armed_ = false;
  onTimer_();
  if (armed_ || moment_ == TimePoint::max()) return;
  if (passed())
    onPassed_();
  else
    arm();
}

} // namespace vorlinkit
