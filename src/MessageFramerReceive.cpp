// Receiving: from bytes to frames to the caller or handler they are for.
#include "MessageFramer.hpp"

#include "Log.hpp"

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
  // Afterwards, so that a second answer in the same chunk does not meet the next request.
  const struct Afterwards {
    MessageFramer& framer;
    ~Afterwards() { framer.drive(); }
  } afterwards{*this};
  cutAndDispatch(chunk);
}

[[gnu::noinline]] void MessageFramer::cutAndDispatch(std::span<const std::byte> chunk) {
  switch (assembler_.cut(chunk, [this](FrameAssembler::Frame& frame) { onFrame(frame); })) {
  case StreamFault::None:
    return;
  case StreamFault::BadProtocolId:
    log(logger_, LogLevel::err, "Invalid protocol ID in RX stream");
    return fsm_.protocolFault("Invalid protocol ID (expected 'VR')");
  case StreamFault::UnknownMessageType:
    log(logger_, LogLevel::err, "{}", "Unknown message type");
    return fsm_.protocolFault("Unknown message type");
  }
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

[[gnu::noinline]] void MessageFramer::onResponse(const RawMessage& message) {
  const RequestFsm::Reception reception = fsm_.response(message);
  switch (reception.kind) {
  case RequestFsm::Reception::Kind::Unexpected:
    return log(logger_, LogLevel::warn, "Received response for commandId={} but no active pending request found",
               message.commandId);
  case RequestFsm::Reception::Kind::Refused:
    return log(logger_, LogLevel::err, "{}", reception.text);
  case RequestFsm::Reception::Kind::Accepted:
    break;
  }
  if (!reception.text.empty()) log(logger_, LogLevel::warn, "{}", reception.text);
  if (!reception.clientId) return;
  callbacks_.setClientId(*reception.clientId);
  log(logger_, LogLevel::info, "Client ID assigned: {}", *reception.clientId);
}

} // namespace vorlinkit
