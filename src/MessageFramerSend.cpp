// Sending: one request at a time, from the queue to its outcome.
#include "MessageFramer.hpp"

#include "Log.hpp"

#include <exception>
#include <string>
#include <utility>

namespace vorlinkit {

namespace {

/// Set while a frame is being written, also when the write throws.
class Writing {
public:
  explicit Writing(bool& flag) : flag_(flag) { flag_ = true; }
  ~Writing() { flag_ = false; }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;

private:
  bool& flag_;
};

} // namespace

asio::awaitable<void> MessageFramer::processLoop() {
  for (;;) {
    while (queue_.empty() && !closed_)
      co_await sendLoop_.wait();
    if (closed_) co_return;

    active_ = std::move(queue_.front());
    queue_.pop_front();
    attempt_ = 1;
    // Only memory can run out in here; that is this request's end, not the loop's.
    std::string failure;
    try {
      co_await sendActive();
    } catch (const std::exception& exception) {
      failure = exception.what();
    }
    if (failure.empty()) continue;
    log(logger_, LogLevel::err, "send loop exception: {}", failure);
    completeActive(std::unexpected(Error{ErrorCode::Transport, "Request could not be sent: " + failure}));
  }
}

asio::awaitable<void> MessageFramer::sendActive() {
  while (active_) {
    const std::uint16_t commandId = active_->commandId;
    const char* const retryText = co_await attemptActive();
    if (retryText == nullptr) co_return;
    log(logger_, LogLevel::warn, retryText, commandId, attempt_ + 1, requestAttempts_);
    ++attempt_;
    // Others get their turn between attempts, among them whoever wants to stop this.
    co_await asio::post(executor_, asio::use_awaitable);
  }
}

/// One attempt. Yields the text to log when it failed and another may follow, and null when the request
/// has its outcome.
asio::awaitable<const char*> MessageFramer::attemptActive() {
  const std::uint16_t commandId = active_->commandId;
  auto written = std::chrono::steady_clock::time_point::max();
  response_.reset();
  if (const auto begun = std::exchange(active_->begun, std::nullopt)) {
    countSent(begun->frameLength);
    written = begun->at;
  } else {
    const char* const retryText = co_await writeActive();
    if (retryText != nullptr) co_return retryText;
    written = std::chrono::steady_clock::now();
  }

  co_await awaitResponse(written);
  if (!active_) co_return nullptr;
  if (response_) co_return endActive(std::move(*std::exchange(response_, std::nullopt)));
  if (!mayRetry()) co_return giveUpAfterTimeout(commandId);
  TrafficCounters::add(counters_.timeoutRetries, 1);
  TrafficCounters::add(counters_.retriesOf, commandId, 1);
  co_return "Request timeout for commandId={}, retrying attempt {} of {}";
}

/// Encodes, shows and writes the active request. Yields as attemptActive does; the request may have been
/// completed when it has been written.
asio::awaitable<const char*> MessageFramer::writeActive() {
  auto frame = codec_->encodeRequest(active_->commandId, callbacks_.clientId(), active_->payload);
  if (!frame) co_return endActive(std::unexpected(frame.error()));
  countSent(frame->size());

  if (auto refused = observeSent(*frame)) {
    if (mayRetry()) co_return "onFrame(Tx) callback failed for commandId={}, retrying attempt {} of {}";
    co_return endActive(std::unexpected(std::move(*refused)));
  }

  std::expected<void, Error> written;
  {
    const Writing mark(writing_);
    written = co_await writeChannel_.write(std::move(*frame));
  }
  if (written) co_return nullptr;
  if (mayRetry()) co_return "Write failed for commandId={}, retrying attempt {} of {}";
  co_return endActive(std::unexpected(std::move(written.error())));
}

void MessageFramer::countSent(std::size_t frameLength) {
  TrafficCounters::add(counters_.bytesSent, frameLength);
  TrafficCounters::add(counters_.bytesSentOf, active_->commandId, frameLength);
}

/// Waits until the active request has a response, is completed otherwise, or has run out of time.
asio::awaitable<void> MessageFramer::awaitResponse(Deadline::TimePoint written) {
  if (!active_ || response_) co_return;
  responseDeadline_.set(saturatingAdd(written, requestTimeout_));
  while (active_ && !response_ && !responseDeadline_.passed())
    co_await sendLoop_.wait();
  responseDeadline_.clear();
}

/// Shows the frame to the observer; what it throws is the reason not to send.
std::optional<Error> MessageFramer::observeSent(std::span<const std::byte> frame) {
  const auto observer = callbacks_.slots.frameObserver();
  if (!observer) return std::nullopt;
  try {
    (*observer)(FrameDirection::Tx, frame);
    return std::nullopt;
  } catch (const std::exception& exception) {
    return Error{ErrorCode::Transport, std::string("onFrame callback exception: ") + exception.what()};
  } catch (...) {
    return Error{ErrorCode::Transport, "onFrame callback exception: unknown"};
  }
}

const char* MessageFramer::giveUpAfterTimeout(std::uint16_t commandId) {
  TrafficCounters::add(counters_.requestsTimedOut, 1);
  TrafficCounters::add(counters_.timeoutsOf, commandId, 1);
  return endActive(
      std::unexpected(Error{ErrorCode::Timeout, "Request timeout for commandId=" + std::to_string(commandId) +
                                                    " after " + std::to_string(requestAttempts_) + " attempt(s)"}));
}

const char* MessageFramer::endActive(Outcome outcome) {
  completeActive(std::move(outcome));
  return nullptr;
}

void MessageFramer::completeActive(Outcome outcome) {
  responseDeadline_.clear();
  const auto request = std::exchange(active_, nullptr);
  if (!request) return;
  // Before the caller goes on, who may have the next request at hand.
  if (outcome && queue_.empty()) callbacks_.allAnswered();
  request->complete(std::move(outcome));
}

} // namespace vorlinkit
