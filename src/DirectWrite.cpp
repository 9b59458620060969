#include "DirectWrite.hpp"

#include <utility>

namespace vorlinkit {

DirectWrite::Result DirectWrite::tryWrite(std::unique_ptr<PendingRequest>& request, std::vector<std::byte>&& frame,
                                          const std::function<bool()>& stillGood) {
  const std::lock_guard guard(lock_);
  if (state_ != State::Open || !stillGood()) return Result::NotWritten;

  enter(State::Taken); // a write that throws leaves nothing behind on the line
  const auto at = std::chrono::steady_clock::now();
  const auto written = line_(frame);
  if (written && *written == 0) {
    enter(State::Open);
    return Result::NotWritten;
  }
  handedOver_.emplace(std::move(request), at, std::move(frame), written.value_or(0),
                      written ? std::error_code() : written.error());
  enter(State::HandedOver);
  const bool whole = handedOver_->written == handedOver_->frame.size();
  return whole && timerRuns_ ? Result::Written : Result::WrittenAndWake;
}

void DirectWrite::attach(WriteSome line) {
  const std::lock_guard guard(lock_);
  line_ = std::move(line);
}

void DirectWrite::detach() {
  const std::lock_guard guard(lock_);
  line_ = nullptr;
  if (state_ == State::Open) enter(State::Closed);
}

std::optional<WrittenRequest> DirectWrite::claim() {
  const std::lock_guard guard(lock_);
  enter(State::Closed);
  return std::exchange(handedOver_, std::nullopt);
}

std::optional<WrittenRequest> DirectWrite::claimWritten() {
  const std::lock_guard guard(lock_);
  if (state_ != State::HandedOver) return std::nullopt;
  enter(State::Closed);
  return std::exchange(handedOver_, std::nullopt);
}

bool DirectWrite::open(bool timerRuns) {
  const std::lock_guard guard(lock_);
  if (state_ != State::Closed || !line_) return false;
  timerRuns_ = timerRuns;
  enter(State::Open);
  return true;
}

} // namespace vorlinkit
