#include "DirectWrite.hpp"

#include "SaturatingTime.hpp"

#include <utility>

namespace vorlinkit {

DirectWrite::Result DirectWrite::tryWrite(std::unique_ptr<PendingRequest>& request, std::vector<std::byte>&& frame,
                                          const std::function<bool()>& stillGood) {
  if (!take(request, frame.size(), stillGood)) return Result::NotWritten;
  const auto written = line_(frame); // nobody replaces the line while it is Taken
  return finish(written, request, std::move(frame));
}

bool DirectWrite::take(std::unique_ptr<PendingRequest>& request, std::size_t frameLength,
                       const std::function<bool()>& stillGood) {
  const std::lock_guard guard(lock_);
  if (state_ != State::Open || !stillGood()) return false;
  handedOver_.emplace();
  handedOver_->request = std::move(request);
  handedOver_->at = std::chrono::steady_clock::now();
  handedOver_->frameLength = frameLength;
  openAgain_ = false;
  enter(State::Taken);
  return true;
}

DirectWrite::Result DirectWrite::finish(std::expected<std::size_t, std::error_code> written,
                                        std::unique_ptr<PendingRequest>& request, std::vector<std::byte>&& frame) {
  const std::lock_guard guard(lock_);
  const bool takenOver = state_ == State::TakenOver;
  writerDone_.notify_one();
  if (written == frame.size() && takenOver) {
    enter(openAgain_ ? State::Open : State::Closed);
    return Result::Written;
  }
  if (written == std::size_t{0} && !takenOver) {
    request = std::move(handedOver_->request);
    handedOver_.reset();
    enter(State::Open);
    return Result::NotWritten;
  }
  enter(State::HandedOver);
  if (written == frame.size()) return isSeenInTime() ? Result::Written : Result::WrittenAndWake;

  if (!handedOver_) handedOver_.emplace();
  handedOver_->from = written.value_or(0);
  if (written)
    handedOver_->unwritten = std::move(frame);
  else
    handedOver_->failure = written.error();
  return Result::WrittenAndWake;
}

/// Whether the I/O thread looks by itself before the request that is handed over runs out of time.
bool DirectWrite::isSeenInTime() const noexcept {
  return wakesAt_ <= saturatingAdd(handedOver_->at, handedOver_->request->options.timeout);
}

void DirectWrite::awaitWriter(std::unique_lock<std::mutex>& guard) {
  writerDone_.wait(guard, [this] { return state_ != State::Taken && state_ != State::TakenOver; });
}

void DirectWrite::attach(WriteSome line) {
  const std::lock_guard guard(lock_);
  line_ = std::move(line);
}

void DirectWrite::detach() {
  std::unique_lock guard(lock_);
  awaitWriter(guard);
  line_ = nullptr;
  if (state_ == State::Open) enter(State::Closed);
}

std::optional<WrittenRequest> DirectWrite::claim() {
  std::unique_lock guard(lock_);
  awaitWriter(guard);
  enter(State::Closed);
  return std::exchange(handedOver_, std::nullopt);
}

DirectWrite::Reading DirectWrite::beginRead() {
  if (state_ == State::Closed) return {}; // only the I/O thread opens
  std::unique_lock guard(lock_);
  if (state_ == State::Taken)
    enter(State::TakenOver);
  else if (state_ == State::HandedOver)
    enter(State::Closed);
  else
    return {std::nullopt, std::move(guard)};
  return {std::exchange(handedOver_, std::nullopt), {}};
}

bool DirectWrite::open(TimePoint wakesAt) {
  const std::lock_guard guard(lock_);
  if (!line_) return false;
  wakesAt_ = wakesAt;
  if (state_ == State::Closed) enter(State::Open);
  openAgain_ = state_ == State::TakenOver;
  return state_ == State::Open || openAgain_;
}

} // namespace vorlinkit
