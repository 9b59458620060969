#include "ConnectionFsm.hpp"

#include <algorithm>

namespace vorlinkit {

ConnectionFsm::Decision ConnectionFsm::connect() noexcept {
  Decision decision = end();
  // An attempt or a connection that is given up counts as any failure: it is followed by another.
  inARow_ = 0;
  if (decision.attemptFailed || decision.lost) scheduleReconnect(decision);
  start(decision);
  return decision;
}

ConnectionFsm::Decision ConnectionFsm::reconnectDue() noexcept {
  Decision decision;
  if (state_ == State::Idle) start(decision);
  return decision;
}

ConnectionFsm::Decision ConnectionFsm::close() noexcept {
  Decision decision = end();
  decision.cancelReconnect = true;
  state_ = State::Closed;
  return decision;
}

ConnectionFsm::Decision ConnectionFsm::end() noexcept {
  Decision decision;
  if (attempting()) decision.attemptFailed = {ended_};
  if (state_ == State::Connected) decision.lost = ended_;
  state_ = State::Idle;
  return decision;
}

void ConnectionFsm::start(Decision& decision) noexcept {
  ++number_;
  state_ = State::LookingUp;
  decision.lookUp = true;
}

ConnectionFsm::Decision ConnectionFsm::lookedUp(Number number, std::error_code failure,
                                                std::size_t addresses) noexcept {
  if (!isCurrent(number) || state_ != State::LookingUp) return {};
  if (failure) return attemptFailed({failure});
  state_ = State::Connecting;
  addresses_ = addresses;
  address_ = 0;
  Decision decision;
  decision.connectToAddress = address_;
  return decision;
}

ConnectionFsm::Decision ConnectionFsm::connectEnded(Number number, std::error_code failure) noexcept {
  if (!isCurrent(number) || state_ != State::Connecting) return {};
  Decision decision;
  if (!failure) {
    state_ = State::Connected;
    inARow_ = 0;
    decision.cancelReconnect = true;
    decision.connected = true;
  } else if (++address_ < addresses_)
    decision.connectToAddress = address_;
  else
    decision = attemptFailed({failure});
  return decision;
}

ConnectionFsm::Decision ConnectionFsm::deadlinePassed(Number number) noexcept {
  if (!isCurrent(number) || !attempting()) return {};
  return attemptFailed({ended_, true});
}

ConnectionFsm::Decision ConnectionFsm::attemptFailed(Failure failure) noexcept {
  state_ = State::Idle;
  Decision decision;
  decision.attemptFailed = failure;
  scheduleReconnect(decision);
  return decision;
}

ConnectionFsm::Decision ConnectionFsm::connectionFailed(Number number, std::error_code reason) noexcept {
  if (!isCurrent(number) || state_ != State::Connected) return {};
  state_ = State::Idle;
  Decision decision;
  decision.lost = reason;
  scheduleReconnect(decision);
  return decision;
}

void ConnectionFsm::scheduleReconnect(Decision& decision) noexcept {
  decision.scheduleReconnect = true;
  ++inARow_;
}

std::chrono::milliseconds ConnectionFsm::reconnectDelay(double random) const noexcept {
  if (delays_.longest.count() <= 0) return delays_.first;
  auto delay = std::min(delays_.first, delays_.longest);
  for (unsigned doubled = 1; doubled < inARow_ && delay.count() > 0 && delay < delays_.longest; ++doubled)
    delay = delay > delays_.longest / 2 ? delays_.longest : delay * 2;
  const auto taken = std::chrono::duration<double, std::milli>(delay) * (random / 2);
  return delay - std::chrono::duration_cast<std::chrono::milliseconds>(taken);
}

} // namespace vorlinkit
