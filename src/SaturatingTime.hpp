#pragma once

#include <chrono>

namespace vorlinkit {

/// `start` plus `wait`, at the limits of the clock instead of beyond them.
inline std::chrono::steady_clock::time_point saturatingAdd(std::chrono::steady_clock::time_point start,
                                                           std::chrono::milliseconds wait) noexcept {
  using Clock = std::chrono::steady_clock;
  using std::chrono::milliseconds;
  const auto roomAbove = std::chrono::floor<milliseconds>(Clock::time_point::max() - start);
  const auto roomBelow = -std::chrono::floor<milliseconds>(start.time_since_epoch());
  if (wait >= roomAbove) return Clock::time_point::max();
  if (wait <= roomBelow) return Clock::time_point{};
  return start + wait;
}

} // namespace vorlinkit
