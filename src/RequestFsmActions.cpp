// Actions: what is to be done, and the end of requests.
#include "RequestFsm.hpp"

#include <utility>

namespace vorlinkit {

// -- the end ------------------------------------------------------------------------------------------------

void RequestFsm::lost(const Error& error) noexcept {
  failAll(error);
  lateAnswers_.clear();
}

void RequestFsm::stop() noexcept {
  failAll(stoppedError());
  stopped_ = true;
}

void RequestFsm::failAll(const Error& error) noexcept {
  failure_ = copyOf(error);
  if (active_) failed_.push(std::move(active_));
  while (!queue_.empty())
    failed_.push(queue_.pop());
  stage_ = Stage::Idle;
  writing_ = false;
  outcome_.reset();
  overAtOnce_ = false;
  rest_.reset();
  log_.reset();
  deadline_ = TimePoint::max();
}

// -- what to do ---------------------------------------------------------------------------------------------

bool RequestFsm::isOver() const noexcept { return outcome_ && (stage_ != Stage::Sending || overAtOnce_ || !writing_); }

bool RequestFsm::isQuiet() const noexcept {
  return !active_ && queue_.empty() && failed_.empty() && !writing_ && !stopped_ && lateAnswers_.none();
}

RequestFsm::Action RequestFsm::next() noexcept {
  if (!failed_.empty()) return Complete{failed_.pop(), std::unexpected(copyOf(failure_))};
  if (log_) return *std::exchange(log_, std::nullopt);
  if (isOver()) return complete();
  if (rest_) {
    Action action = std::move(*rest_);
    rest_.reset();
    return action;
  }
  if (stage_ == Stage::TimeUp) {
    stage_ = Stage::Reading;
    return ReadLine{};
  }
  if (stage_ == Stage::Idle && !queue_.empty() && !writing_) {
    active_ = queue_.pop();
    attempt_ = 1;
    stage_ = Stage::ToSend;
  }
  if (stage_ != Stage::ToSend) return Nothing{};
  stage_ = Stage::Sending;
  writing_ = true;
  return Send{*active_};
}

RequestFsm::Complete RequestFsm::complete() noexcept {
  stage_ = Stage::Idle;
  overAtOnce_ = false;
  Complete action{std::move(active_), std::move(*outcome_)};
  outcome_.reset();
  return action;
}

} // namespace vorlinkit
