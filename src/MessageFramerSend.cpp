// Sending: carries out what RequestFsm decides, one action after the other.
#include "MessageFramer.hpp"

#include "Log.hpp"

#include <exception>
#include <string>
#include <utility>
#include <variant>

namespace vorlinkit {

void MessageFramer::drive() noexcept {
  if (std::exchange(driving_, true)) return; // an action led back here; the loop below goes on
  do
    performAll();
  while (!setDeadline());
  driving_ = false;
}

// NOLINTNEXTLINE(bugprone-exception-escape): visit throws for a variant that an exception has left empty; none does
void MessageFramer::performAll() noexcept {
  for (;;) {
    RequestFsm::Action action = fsm_.next();
    if (std::holds_alternative<RequestFsm::Nothing>(action)) return;
    std::visit([this](auto& what) { perform(std::move(what)); }, action);
  }
}

void MessageFramer::perform(RequestFsm::Send action) {
  try {
    encodeAndWrite(action.request);
  } catch (const std::exception& exception) { // only memory can run out in here
    log(logger_, LogLevel::err, "send loop exception: {}", exception.what());
    fsm_.notSendable(
        errorWith(ErrorCode::Transport, [&] { return std::string("Request could not be sent: ") + exception.what(); }));
  }
}

void MessageFramer::encodeAndWrite(const PendingRequest& request) {
  auto frame = codec_->encodeRequest(request.commandId, callbacks_.clientId(), request.payload);
  if (!frame) return fsm_.notSendable(std::move(frame.error()));
  fsm_.encoded(frame->size());
  if (auto refused = observeSent(*frame)) return fsm_.observerThrew(std::move(*refused));
  onWritten(writeChannel_.write(std::move(*frame), 0));
}

void MessageFramer::perform(RequestFsm::WriteRest action) {
  onWritten(writeChannel_.write(std::move(action.frame), action.from));
}

void MessageFramer::perform(RequestFsm::ReadLine) {
  writeChannel_.readArrived();
  fsm_.lineRead();
}

void MessageFramer::perform(RequestFsm::Complete action) {
  // Before the caller goes on, who may have the next request at hand.
  if (fsm_.isQuiet()) callbacks_.openDirectWrite();
  action.request->complete(std::move(action.outcome));
}

void MessageFramer::perform(RequestFsm::LogRetry retry) {
  const auto warn = [&](LogFormat text) {
    log(logger_, LogLevel::warn, text, retry.commandId, retry.attempt, retry.attempts);
  };
  switch (retry.cause) {
  case RequestFsm::RetryCause::WriteFailed:
    return warn("Write failed for commandId={}, retrying attempt {} of {}");
  case RequestFsm::RetryCause::ObserverThrew:
    return warn("onFrame(Tx) callback failed for commandId={}, retrying attempt {} of {}");
  case RequestFsm::RetryCause::TimedOut:
    return warn("Request timeout for commandId={}, retrying attempt {} of {}");
  }
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

void MessageFramer::onWritten(std::optional<ITransportWriteChannel::Written> result) {
  if (!result) return; // under way
  if (*result)
    fsm_.written(std::chrono::steady_clock::now());
  else
    fsm_.writeFailed(std::move(result->error()));
}

void MessageFramer::onTimer() {
  callbacks_.claimDirectWrite();
  fsm_.timePassed(std::chrono::steady_clock::now());
  drive();
  if (fsm_.isQuiet()) callbacks_.openDirectWrite();
}

/// False when there is no memory for a timer: the request that needed it is over then.
bool MessageFramer::setDeadline() noexcept {
  try {
    deadline_.set(fsm_.deadline());
    return true;
  } catch (const std::exception& exception) {
    fsm_.notTimed(
        errorWith(ErrorCode::Transport, [&] { return std::string("Request could not be sent: ") + exception.what(); }));
    return false;
  }
}

} // namespace vorlinkit
