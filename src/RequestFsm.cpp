// Events: what they mean for the request in flight.
#include "RequestFsm.hpp"

#include "SaturatingTime.hpp"

#include <vorlinkit/ProtocolErrorFlags.hpp>

#include <algorithm>
#include <utility>

namespace vorlinkit {

RequestFsm::RequestFsm(std::uint32_t attempts, TrafficCounters& counters)
    : attempts_(std::max<std::uint32_t>(attempts, 1)), counters_(counters) {}

// -- sending ------------------------------------------------------------------------------------------------

void RequestFsm::submit(std::unique_ptr<PendingRequest> request) noexcept {
  if (stopped_)
    failed_.push(std::move(request));
  else
    queue_.push(std::move(request));
}

void RequestFsm::submitWritten(std::unique_ptr<PendingRequest> request, TimePoint at,
                               std::size_t frameLength) noexcept {
  if (stopped_) return failed_.push(std::move(request));
  active_ = std::move(request);
  attempt_ = 1;
  encoded(frameLength);
  stage_ = Stage::Waiting;
  deadline_ = saturatingAdd(at, active_->options.timeout);
}

void RequestFsm::unwritten(std::vector<std::byte> frame, std::size_t from) noexcept {
  if (stopped_) return;
  writing_ = true;
  rest_.emplace(std::move(frame), from);
  if (stage_ != Stage::Waiting) return; // over meanwhile; its frame is written to the end all the same
  stage_ = Stage::Sending;
  deadline_ = TimePoint::max();
}

void RequestFsm::encoded(std::size_t frameLength) noexcept {
  TrafficCounters::add(counters_.bytesSent, frameLength);
  TrafficCounters::add(counters_.bytesSentOf, active_->commandId, frameLength);
}

void RequestFsm::written(TimePoint now) noexcept {
  writing_ = false;
  if (stage_ != Stage::Sending) return; // over meanwhile
  stage_ = Stage::Waiting;
  if (!outcome_) deadline_ = saturatingAdd(now, active_->options.timeout);
}

void RequestFsm::writeFailed(Error error) noexcept {
  writing_ = false;
  if (stage_ != Stage::Sending) return; // the loss of the connection has ended it
  if (mayRetry())
    retry(RetryCause::WriteFailed);
  else
    settle(std::unexpected(std::move(error)));
}

void RequestFsm::notSendable(Error error) noexcept {
  writing_ = false;
  if (stage_ == Stage::Sending) settle(std::unexpected(std::move(error)));
}

void RequestFsm::observerThrew(Error error) noexcept {
  writing_ = false;
  if (stage_ != Stage::Sending) return;
  if (mayRetry())
    retry(RetryCause::ObserverThrew);
  else
    settle(std::unexpected(std::move(error)));
}

void RequestFsm::retry(RetryCause cause) noexcept {
  ++attempt_;
  log_ = LogRetry{cause, active_->commandId, attempt_, attempts_};
  stage_ = Stage::Retry;
  deadline_ = TimePoint(); // at once, but in a turn of its own
}

// -- receiving ----------------------------------------------------------------------------------------------

RequestFsm::Reception RequestFsm::response(const RawMessage& message) {
  if (!active_ || active_->commandId != message.commandId) return {Reception::Kind::Unexpected, {}, {}};
  lateAnswers_.answered(message.commandId);
  if (message.majorError != 0) {
    Error refusal = errorWith(ErrorCode::Protocol, [&] {
      return "VORLIN protocol error (majorError): " + protocolErrorsToString(message.majorError, true);
    });
    refusal.majorError = message.majorError;
    Reception reception{Reception::Kind::Refused, refusal.message, {}};
    settleNow(std::move(refusal));
    return reception;
  }
  Reception reception{Reception::Kind::Accepted, {}, {}};
  if (message.minorError != 0)
    reception.text = "VORLIN protocol warning (minorError): " + protocolErrorsToString(message.minorError, false);
  if (!outcome_) settle(message);
  constexpr std::uint16_t getClientId = 1;
  if (message.commandId == getClientId && message.payload.size() == 1)
    reception.clientId = std::to_integer<std::uint8_t>(message.payload[0]);
  return reception;
}

void RequestFsm::protocolFault(const char* text) noexcept {
  if (!active_) return;
  if (!outcome_) lateAnswers_.add(active_->commandId);
  settleNow(errorWith(ErrorCode::Protocol, [&] { return std::string(text); }));
}

/// The active request is over as soon as nothing of it is being written.
void RequestFsm::settle(Outcome outcome) noexcept {
  outcome_ = std::move(outcome);
  deadline_ = TimePoint::max();
}

/// The active request is over, also while it is being written: a machine may refuse before it has read everything.
void RequestFsm::settleNow(Error error) noexcept {
  settle(std::unexpected(std::move(error)));
  overAtOnce_ = true;
}

// -- time ---------------------------------------------------------------------------------------------------

void RequestFsm::timePassed(TimePoint now) noexcept {
  if (now < deadline_) return;
  deadline_ = TimePoint::max();
  if (stage_ == Stage::Retry)
    stage_ = Stage::ToSend;
  else if (stage_ == Stage::Waiting)
    stage_ = Stage::TimeUp;
}

void RequestFsm::notTimed(Error error) noexcept {
  deadline_ = TimePoint::max();
  if (!active_) return;
  lateAnswers_.add(active_->commandId);
  settleNow(std::move(error));
}

void RequestFsm::lineRead() noexcept {
  if (stage_ == Stage::Reading && !outcome_) timedOut();
}

void RequestFsm::timedOut() noexcept {
  const std::uint16_t commandId = active_->commandId;
  lateAnswers_.add(commandId);
  if (mayRetry()) {
    TrafficCounters::add(counters_.timeoutRetries, 1);
    TrafficCounters::add(counters_.retriesOf, commandId, 1);
    return retry(RetryCause::TimedOut);
  }
  TrafficCounters::add(counters_.requestsTimedOut, 1);
  TrafficCounters::add(counters_.timeoutsOf, commandId, 1);
  settle(std::unexpected(errorWith(ErrorCode::Timeout, [&] {
    return "Request timeout for commandId=" + std::to_string(commandId) + " after " + std::to_string(attempts_) +
           " attempt(s)";
  })));
}

} // namespace vorlinkit
