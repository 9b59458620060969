#pragma once

#include <vorlinkit/IVorlinLogger.hpp>
#include <vorlinkit/SessionConfig.hpp>

#include "Asio.hpp"
#include "CompletionAnswer.hpp"
#include "ConnectionFsm.hpp"
#include "DirectWrite.hpp"
#include "HandlerMemory.hpp"
#include "ITransportWriteChannel.hpp"
#include "NameLookup.hpp"
#include "PendingRequest.hpp"
#include "StallWatch.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace vorlinkit {

/// The one TCP connection of a session: connects within a deadline, reads, writes whole frames, closes, reports
/// changes, re-connects after a delay. Knows nothing of frames. What is to happen is ConnectionFsm's decision.
///
/// Owned by the session; everything but `isConnected` and the writing side of `directWrite` runs on the I/O thread.
class TcpTransport final : public ITransportWriteChannel {
public:
  using BytesCallback = std::function<void(std::expected<std::span<const std::byte>, Error>)>;
  using StateCallback = std::function<void(bool connected, const std::string& reason)>;

  TcpTransport(asio::io_context& context, SessionConfig config, std::shared_ptr<IVorlinLogger> logger);

  /// Every chunk read, and the error when a connection has ended. The span is valid during the call.
  void setOnBytes(BytesCallback callback) { onBytes_ = std::move(callback); }
  /// What a caller has written, before the bytes are read that may answer it.
  void setOnCallerWrote(std::function<void(WrittenRequest)> callback) { onCallerWrote_ = std::move(callback); }
  void setOnConnectionStateChanged(StateCallback callback) { onStateChanged_ = std::move(callback); }

  /// Any thread.
  bool isConnected() const noexcept { return connection() != 0; }
  /// Any thread: the number of the connection that is up, that of the attempt which made it; 0 for none.
  std::uint64_t connection() const noexcept { return connection_.load(std::memory_order_acquire); }
  /// The line is attached to it while there is a connection.
  DirectWrite& directWrite() noexcept { return directWrite_; }

  /// Ends what is under way and connects anew; the caller is told when the attempt has succeeded or failed.
  void connect(ConnectAnswer caller) noexcept;
  /// When it returns everything has ended and been reported.
  std::expected<void, Error> close() noexcept;
  /// Ends the connection for a reason that was found elsewhere.
  void fail(std::error_code reason) noexcept;

  std::optional<Written> write(std::vector<std::byte> frame, std::size_t from) noexcept override;
  void readArrived() noexcept override;
  asio::any_io_executor getExecutor() override { return executor_; }

private:
  using Number = ConnectionFsm::Number;
  using TimePoint = std::chrono::steady_clock::time_point;

  // What was decided (TcpTransport.cpp)
  void carryOut(const ConnectionFsm::Decision& decision, std::optional<ConnectAnswer> caller = {}) noexcept;
  Error attemptFailed(const ConnectionFsm::Failure& failure) noexcept;
  void lost(std::error_code reason) noexcept;
  void scheduleReconnect() noexcept;
  void cancelReconnect() noexcept;
  void awaitReconnect() noexcept;
  void tellCaller(std::expected<void, Error> result) noexcept;
  void reportState(bool connected, const std::string& reason) noexcept;
  std::error_code closeSocket() noexcept;

  // Attempts (TcpTransportConnect.cpp)
  void startAttempt() noexcept;
  void startDeadline(Number number);
  void lookedUp(Number number, NameLookup::Result found) noexcept;
  void connectTo(std::size_t address) noexcept;
  void connectEnded(Number number, std::error_code failure) noexcept;
  std::error_code prepare() noexcept;
  void connected() noexcept;

  // A connection's bytes (TcpTransportStream.cpp)
  bool isCurrent(Number number) const noexcept;
  void awaitReadable() noexcept;
  void readable(Number number, std::error_code failure) noexcept;
  std::size_t readSome() noexcept;
  void deliver(std::span<const std::byte> chunk) noexcept;
  std::error_code writeSome() noexcept;
  void awaitWritable();
  void writable(Number number, std::error_code failure) noexcept;
  std::uint64_t pendingBytes() noexcept;
  void lookForStall(StallWatch::TimePoint when);
  void stallDue() noexcept;
  void forgetWrite() noexcept;

  struct Outgoing {
    std::vector<std::byte> frame;
    std::size_t written;
  };

  asio::any_io_executor executor_;
  std::shared_ptr<IVorlinLogger> logger_;
  const SessionConfig config_;
  HandlerMemory connectMemory_, deadlineMemory_, reconnectMemory_, readMemory_, writeMemory_, stallMemory_;
  asio::ip::tcp::socket socket_;
  asio::steady_timer deadlineTimer_;
  asio::steady_timer reconnectTimer_;
  asio::steady_timer stallTimer_;
  NameLookup lookup_;
  BytesCallback onBytes_;
  std::function<void(WrittenRequest)> onCallerWrote_;
  StateCallback onStateChanged_;
  ConnectionFsm fsm_;
  std::minstd_rand random_; // for the delays of re-connects
  TimePoint reconnectAt_ = TimePoint::max();
  bool awaitsReconnect_ = false;
  std::atomic<std::uint64_t> connection_{0};
  std::optional<ConnectAnswer> caller_; // of the attempt
  std::vector<asio::ip::tcp::endpoint> addresses_;
  std::vector<std::byte> readBuffer_;
  std::optional<Outgoing> outgoing_; // what the socket has not taken yet
  StallWatch stallWatch_;
  DirectWrite directWrite_;
};

} // namespace vorlinkit
