#pragma once

#include "SaturatingTime.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>

namespace vorlinkit {

/// Decides when a peer that is being written to takes nothing any more. Knows no sockets and no clock.
class StallWatch {
public:
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit StallWatch(std::chrono::milliseconds limit) : limit_(std::max(limit, std::chrono::milliseconds(1))) {}
  std::chrono::milliseconds limit() const noexcept { return limit_; }

  /// `pending`: the bytes that the peer has not acknowledged yet. Yields when to look.
  TimePoint start(TimePoint now, std::uint64_t pending) {
    pending_ = pending;
    progress_ = now;
    return nextLook(now);
  }
  /// Yields when to look again; nothing when the peer has taken nothing for as long as the limit says.
  std::optional<TimePoint> look(TimePoint now, std::uint64_t pending) {
    if (pending < pending_) progress_ = now;
    pending_ = pending;
    if (saturatingAdd(progress_, limit_) <= now) return std::nullopt;
    return nextLook(now);
  }

private:
  /// Often enough to know well when the last byte was acknowledged.
  TimePoint nextLook(TimePoint now) const {
    const auto step = std::max(limit_ / 8, std::chrono::milliseconds(1));
    return std::min(saturatingAdd(progress_, limit_), saturatingAdd(now, step));
  }

  const std::chrono::milliseconds limit_;
  std::uint64_t pending_ = 0;
  TimePoint progress_;
};

} // namespace vorlinkit
