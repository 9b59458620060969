#pragma once

#include <vorlinkit/ICodec.hpp>
#include <vorlinkit/VorlinSession.hpp>

#include "Asio.hpp"
#include "CallbackSlots.hpp"
#include "Deadline.hpp"
#include "FrameAssembler.hpp"
#include "ITransportWriteChannel.hpp"
#include "PendingRequest.hpp"
#include "TrafficCounters.hpp"
#include "Wakeup.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlinkit {

/// Stands between session and transport: cuts received bytes into frames and dispatches them, queues
/// requests, sends them strictly one at a time, matches responses, times out and retries.
///
/// Owns the queue, the request in flight and the receive state. Made, called and destroyed by the
/// session; everything runs on the I/O thread, so nothing is locked.
class MessageFramer {
public:
  using Outcome = PendingRequest::Outcome;

  /// What the framer asks of the session: the user's callbacks, and the client id.
  struct Callbacks {
    CallbackSlots& slots;
    std::function<std::uint8_t()> clientId;
    std::function<void(std::uint8_t)> setClientId;
    /// Asked before time is looked at: requests that callers have begun are to be submitted now.
    std::function<void()> submitBegun = [] {};
    /// The machine has answered everything, and the caller is about to be told.
    std::function<void()> allAnswered = [] {};
  };

  MessageFramer(std::chrono::milliseconds requestTimeout, std::uint32_t requestAttempts,
                std::shared_ptr<const ICodec> codec, ITransportWriteChannel& writeChannel, Callbacks callbacks,
                std::shared_ptr<IVorlinLogger> logger);
  ~MessageFramer();
  MessageFramer(const MessageFramer&) = delete;
  MessageFramer& operator=(const MessageFramer&) = delete;

  /// Spawns the send loop; harmless when it runs already.
  void start();
  /// Queues a request; its `complete` is called exactly once, also when the framer is already stopped. One
  /// that its caller has begun must be submitted before a chunk that may hold its response.
  void submit(std::unique_ptr<PendingRequest> request);
  /// Queues a request and waits for its outcome. Owns the payload, since it starts only when awaited.
  asio::awaitable<Outcome> send(std::uint16_t commandId, std::vector<std::byte> payload);
  /// Takes a chunk of the received stream: cuts, reports, decodes and dispatches every frame in it.
  void onBytes(std::span<const std::byte> chunk);
  /// Fails the request in flight and everything queued. Requests that were queued are never sent: their
  /// callers have been told. With `closeQueue` the send loop ends, too.
  void failAll(const Error& error, bool closeQueue);
  /// Forgets half-received frames; for the session, when a connection has ended.
  void resetReceiveState() { assembler_.reset(); }
  /// Whether nothing is in flight, waits or is still being written, so that a request that is begun now
  /// overtakes no other and does not land inside a frame: a machine may refuse one before it has read it all.
  bool allAnswered() const { return !active_ && queue_.empty() && !writing_ && !closed_; }
  /// Any thread: whether `submitBegun` will be called in time for a request that was begun before this call.
  bool keepsTime() const noexcept { return responseDeadline_.armed(); }

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
  void failActive(std::string text);

  // Sending (MessageFramerSend.cpp)
  asio::awaitable<void> processLoop();
  asio::awaitable<void> sendActive();
  asio::awaitable<const char*> attemptActive();
  asio::awaitable<const char*> writeActive();
  asio::awaitable<void> awaitResponse(Deadline::TimePoint written);
  void countSent(std::size_t frameLength);
  std::optional<Error> observeSent(std::span<const std::byte> frame);
  const char* giveUpAfterTimeout(std::uint16_t commandId);
  const char* endActive(Outcome outcome);
  bool mayRetry() const { return attempt_ < requestAttempts_; }
  void completeActive(Outcome outcome);

  const std::chrono::milliseconds requestTimeout_;
  const std::uint32_t requestAttempts_; // at least 1
  const std::shared_ptr<const ICodec> codec_;
  ITransportWriteChannel& writeChannel_;
  const Callbacks callbacks_;
  const std::shared_ptr<IVorlinLogger> logger_;
  TrafficCounters counters_;

  asio::any_io_executor executor_;
  FrameAssembler assembler_;
  std::deque<std::unique_ptr<PendingRequest>> queue_;
  std::unique_ptr<PendingRequest> active_;
  std::uint32_t attempt_ = 0;          // of the active request, from 1
  std::optional<RawMessage> response_; // to the active request; stored for the send loop
  bool activeSettled_ = false;         // the chunk at hand has brought the active request its end
  bool writing_ = false;               // a frame; its request may have been completed meanwhile
  Deadline responseDeadline_;
  Wakeup sendLoop_;
  bool started_ = false;
  bool closed_ = false;
};

} // namespace vorlinkit
