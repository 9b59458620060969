#pragma once

#include <vorlinkit/ICodec.hpp>
#include <vorlinkit/VorlinSession.hpp>

#include "CallbackSlots.hpp"
#include "Deadline.hpp"
#include "DirectWrite.hpp"
#include "FrameAssembler.hpp"
#include "ITransportWriteChannel.hpp"
#include "PendingRequest.hpp"
#include "RequestFsm.hpp"
#include "TrafficCounters.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace vorlinkit {

/// Stands between session and transport: cuts received bytes into frames and dispatches them, tells RequestFsm what
/// happens to requests, and carries out what that decides.
///
/// Owns the requests and the receive state. Made, called and destroyed by the session; everything runs on the I/O
/// thread, so nothing is locked.
class MessageFramer {
public:
  using Outcome = PendingRequest::Outcome;

  /// What the framer asks of the session: the user's callbacks, the client id, and its part in direct writes.
  struct Callbacks {
    CallbackSlots& slots;
    std::function<std::uint8_t()> clientId;
    std::function<void(std::uint8_t)> setClientId;
    /// Time has come, and something may have to be written: a caller's request is to be submitted now.
    std::function<void()> claimDirectWrite = [] {};
    /// Everything is answered, and the last caller is about to be told.
    std::function<void()> openDirectWrite = [] {};
  };

  MessageFramer(std::uint32_t requestAttempts, std::shared_ptr<const ICodec> codec,
                ITransportWriteChannel& writeChannel, Callbacks callbacks, std::shared_ptr<IVorlinLogger> logger);
  ~MessageFramer();
  MessageFramer(const MessageFramer&) = delete;
  MessageFramer& operator=(const MessageFramer&) = delete;

  /// Queues a request; its `complete` is called exactly once, also when the framer is already stopped.
  void submit(std::unique_ptr<PendingRequest> request);
  /// Takes over a request that its caller has written, before anything else happens that it could matter to.
  void submitWritten(WrittenRequest written);
  /// Takes a chunk of the received stream: cuts, reports, decodes and dispatches every frame in it. Throws when
  /// memory runs out; the rest of the stream is then useless.
  void onBytes(std::span<const std::byte> chunk);
  /// Fails the request in flight and everything queued. Requests that were queued are never sent: their
  /// callers have been told. With `closeQueue` later ones fail, too.
  void failAll(const Error& error, bool closeQueue);
  /// Forgets half-received frames; for the session, when a connection has ended.
  void resetReceiveState() { assembler_.reset(); }
  /// Whether a caller may write the next request itself.
  bool isQuiet() const noexcept { return fsm_.isQuiet(); }
  /// When the framer looks at the clock without being woken; TimePoint::max() for never.
  Deadline::TimePoint nextLook() const noexcept { return deadline_.firesAt(); }

  const TrafficCounters& counters() const { return counters_; }

private:
  // Receiving (MessageFramerReceive.cpp)
  void cutAndDispatch(std::span<const std::byte> chunk);
  void onFrame(FrameAssembler::Frame& frame);
  void observeReceived(std::span<const std::byte> frame);
  void dispatch(const RawMessage& message);
  void onNotification(const RawMessage& message);
  void logMissingHandler(std::uint16_t commandId);
  void logUndecoded(const Error& error);
  void onResponse(const RawMessage& message);

  // Sending (MessageFramerSend.cpp)
  void drive() noexcept;
  void performAll() noexcept;
  void perform(RequestFsm::Nothing) {}
  void perform(RequestFsm::Send action);
  void perform(RequestFsm::WriteRest action);
  void perform(RequestFsm::ReadLine);
  void perform(RequestFsm::Complete action);
  void perform(RequestFsm::LogRetry action);
  void encodeAndWrite(const PendingRequest& request);
  std::optional<Error> observeSent(std::span<const std::byte> frame);
  void onWritten(std::optional<ITransportWriteChannel::Written> result);
  void onTimer();
  bool setDeadline() noexcept;

  const std::shared_ptr<const ICodec> codec_;
  ITransportWriteChannel& writeChannel_;
  const Callbacks callbacks_;
  const std::shared_ptr<IVorlinLogger> logger_;
  TrafficCounters counters_;

  FrameAssembler assembler_;
  RequestFsm fsm_;
  Deadline deadline_;
  bool driving_ = false;
};

} // namespace vorlinkit
