#pragma once

#include <vorlinkit/VorlinSession.hpp>

#include "Asio.hpp"
#include "CallbackSlots.hpp"
#include "IoInbox.hpp"
#include "MessageFramer.hpp"
#include "TcpTransport.hpp"

#include <atomic>
#include <cstdint>
#include <expected>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <span>
#include <thread>

namespace vorlinkit {

/// The session behind the front door: owns the event loop and its thread, transport and framer, wires
/// them together, and carries work from user threads to the I/O thread and results back. A quiet session's
/// request is written by its caller's thread.
///
/// Made and called by VorlinSession on any thread. The parts are freed only when the I/O thread has
/// ended: by the destructor, or by that thread itself when the last owner went away on it.
class VorlinSessionImpl {
public:
  VorlinSessionImpl(SessionConfig config, std::shared_ptr<IVorlinLogger> logger);
  ~VorlinSessionImpl();
  VorlinSessionImpl(const VorlinSessionImpl&) = delete;
  VorlinSessionImpl& operator=(const VorlinSessionImpl&) = delete;

  /// The end of a session, on whatever thread the last owner let go of it.
  static void dispose(std::unique_ptr<VorlinSessionImpl> session);

  std::future<std::expected<void, Error>> connect();
  void connect(ConnectCompletion completion);
  std::future<void> startDisconnect();
  void startDisconnect(DisconnectCompletion completion);
  bool isConnected() const noexcept { return connection() != 0; }
  std::uint64_t connection() const noexcept { return inherited() ? 0 : transport_->connection(); }
  std::uint8_t clientId() const noexcept { return clientId_.load(std::memory_order_relaxed); }
  std::future<std::expected<RawMessage, Error>> send(std::uint16_t commandId, std::span<const std::byte> payload,
                                                     SendOptions options = {});
  void send(std::uint16_t commandId, std::span<const std::byte> payload, SendOptions options,
            SendCompletion completion);
  bool isIoThread() const noexcept { return std::this_thread::get_id() == ioThreadId_.load(std::memory_order_relaxed); }
  void onNotification(std::uint16_t commandId, NotificationHandler handler);
  void onFrame(FrameObserver observer);
  void onConnectionStateChanged(StateObserver observer);
  void setChunkHooks(std::function<void()> before, std::function<void()> after);

  /// For tests: work for the event loop as a stranger would post it.
  asio::io_context& ioContext() { return context_; }
  const TrafficCounters& counters() const { return framer_->counters(); }

private:
  class SendJob;
  class RefuseJob;
  class ConnectJob;
  class CloseJob;
  class ForgetJob;
  class DrainJob;

  /// A fork carries the session into a process that has no I/O thread for it.
  bool inherited() const noexcept;

  // Sending (VorlinSessionImplSend.cpp)
  SendOptions withTimeout(SendOptions options) const noexcept;
  bool isFor(const SendOptions& options) const noexcept;
  void pass(std::unique_ptr<PendingRequest>& request);
  bool sendDirectly(std::unique_ptr<PendingRequest>& request);
  void claimDirectWrite();
  void takeOver(std::optional<WrittenRequest> written);
  void openDirectWrite();

  // Wiring
  void wireTransport();
  MessageFramer::Callbacks framerCallbacks();
  void onTransportBytes(std::expected<std::span<const std::byte>, Error> received);
  void onReceived(std::span<const std::byte> chunk);
  void callHook(const std::function<void()>& hook) noexcept;
  void onConnectionLost(const Error& error);
  void onStateChanged(bool connected, const std::string& reason);

  // Life cycle (VorlinSessionImplLife.cpp)
  std::unique_ptr<IoJob> makeDrainJob();
  void runIoThread();
  void runEventLoop();
  void closeDown() noexcept;
  void runWhatIsLeft() noexcept;

  const SessionConfig config_;
  const std::shared_ptr<IVorlinLogger> logger_;
  const std::shared_ptr<const ICodec> codec_;
  asio::io_context context_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> workGuard_;
  std::unique_ptr<TcpTransport> transport_;
  std::unique_ptr<MessageFramer> framer_;
  IoInbox inbox_;
  bool directWriteClaimed_ = true; // I/O thread
  CallbackSlots callbacks_;
  std::function<void()> beforeChunk_;
  std::function<void()> afterChunk_;
  std::atomic<std::uint8_t> clientId_{0};
  const std::uint64_t processGeneration_;
  std::atomic<std::thread::id> ioThreadId_{};
  std::unique_ptr<IoJob> drain_;              // made at the beginning, as the end must not fail
  std::unique_ptr<VorlinSessionImpl> orphan_; // itself, when the I/O thread is to free it
  std::thread ioThread_;
};

} // namespace vorlinkit
