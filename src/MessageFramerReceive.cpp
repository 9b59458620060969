// Receiving: from bytes to frames to the caller or handler they are for.
#include "MessageFramer.hpp"

#include "Log.hpp"

#include <vorlinkit/ProtocolErrorFlags.hpp>

#include <exception>
#include <utility>

namespace vorlinkit {

// What every frame passes through is inline here, and what few do is kept out of its way.

inline void MessageFramer::onNotification(const RawMessage& message) {
  const NotificationHandler* const handler = callbacks_.slots.notificationHandler(message.commandId);
  if (!handler) return logMissingHandler(message.commandId);
  try {
    (*handler)(message);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "Notification handler exception for commandId={}: {}", message.commandId,
        exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "Notification handler exception for commandId={}: unknown", message.commandId);
  }
}

inline void MessageFramer::dispatch(const RawMessage& message) {
  switch (message.type) {
  case MessageType::Notification:
    return onNotification(message);
  case MessageType::Response:
    return onResponse(message);
  case MessageType::Request:
    return; // a machine sends none
  }
}

inline void MessageFramer::onFrame(FrameAssembler::Frame& frame) {
  const std::size_t length = frame->size();
  TrafficCounters::add(counters_.bytesReceived, length);
  if (callbacks_.slots.observesFrames()) observeReceived(*frame);

  auto message = codec_->decode(std::move(frame));
  if (!message) return logUndecoded(message.error());
  TrafficCounters::add(counters_.bytesReceivedOf, message->commandId, length);
  dispatch(*message);
  assembler_.recycle(std::move(message->buffer));
}

void MessageFramer::onBytes(std::span<const std::byte> chunk) {
  if (chunk.empty()) return;
  cutAndDispatch(chunk);
  // Only now, so that a second answer in the same chunk does not meet the next request.
  if (std::exchange(activeSettled_, false)) sendLoop_.resume();
}

void MessageFramer::cutAndDispatch(std::span<const std::byte> chunk) {
  switch (assembler_.cut(chunk, [this](FrameAssembler::Frame& frame) { onFrame(frame); })) {
  case StreamFault::None:
    return;
  case StreamFault::BadProtocolId:
    log(logger_, LogLevel::err, "Invalid protocol ID in RX stream");
    return failActive("Invalid protocol ID (expected 'VR')");
  case StreamFault::UnknownMessageType:
    log(logger_, LogLevel::err, "{}", "Unknown message type");
    return failActive("Unknown message type");
  }
}

void MessageFramer::failActive(std::string text) {
  completeActive(std::unexpected(Error{ErrorCode::Protocol, std::move(text)}));
  activeSettled_ = true;
}

void MessageFramer::observeReceived(std::span<const std::byte> frame) {
  const auto observer = callbacks_.slots.frameObserver();
  if (!observer) return;
  try {
    (*observer)(FrameDirection::Rx, frame);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "onFrame(Rx) callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "onFrame(Rx) callback exception: unknown");
  }
}

[[gnu::cold]] void MessageFramer::logMissingHandler(std::uint16_t commandId) {
  log(logger_, LogLevel::warn, "No handler for notification commandId={}", commandId);
}

[[gnu::cold]] void MessageFramer::logUndecoded(const Error& error) {
  log(logger_, LogLevel::err, "Message decode error: {}", error.message);
}

void MessageFramer::onResponse(const RawMessage& message) {
  if (!active_ || active_->commandId != message.commandId) {
    log(logger_, LogLevel::warn, "Received response for commandId={} but no active pending request found",
        message.commandId);
    return;
  }
  if (message.majorError != 0) {
    const std::string text = "VORLIN protocol error (majorError): " + protocolErrorsToString(message.majorError, true);
    log(logger_, LogLevel::err, "{}", text);
    return failActive(text);
  }
  if (message.minorError != 0) {
    const std::string text =
        "VORLIN protocol warning (minorError): " + protocolErrorsToString(message.minorError, false);
    log(logger_, LogLevel::warn, "{}", text);
  }
  if (!response_) {
    response_ = message;
    responseDeadline_.clear();
    activeSettled_ = true;
  }
  constexpr std::uint16_t getClientId = 1;
  if (message.commandId == getClientId && message.payload.size() == 1) {
    const auto id = std::to_integer<std::uint8_t>(message.payload[0]);
    callbacks_.setClientId(id);
    log(logger_, LogLevel::info, "Client ID assigned: {}", id);
  }
}

} // namespace vorlinkit
