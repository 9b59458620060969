#pragma once

#include <vorlinkit/IVorlinLogger.hpp>
#include <vorlinkit/SessionConfig.hpp>

#include "Asio.hpp"
#include "ITransportWriteChannel.hpp"
#include "NameLookup.hpp"
#include "Wakeup.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace vorlinkit {

/// The one TCP connection of a session: connects within a deadline, reads in a loop, writes whole
/// frames, closes, reports changes, re-connects after a fixed delay. Knows nothing of frames.
///
/// Owned by the session; everything but `isConnected` and `writeAtOnce` runs on the I/O thread. Two things can be under
/// way, each at most once: an attempt to connect, and the read loop of a connection. Whoever starts
/// something new ends what is under way and waits until it has unwound.
class TcpTransport final : public ITransportWriteChannel {
public:
  using BytesCallback = std::function<void(std::expected<std::span<const std::byte>, Error>)>;
  using StateCallback = std::function<void(bool connected, const std::string& reason)>;

  TcpTransport(asio::io_context& context, SessionConfig config, std::shared_ptr<IVorlinLogger> logger);

  /// Every chunk read, and the error when a connection has ended. The span is valid during the call.
  void setOnBytes(BytesCallback callback) { onBytes_ = std::move(callback); }
  void setOnConnectionStateChanged(StateCallback callback) { onStateChanged_ = std::move(callback); }

  /// Any thread.
  bool isConnected() const noexcept { return connected_.load(std::memory_order_acquire); }

  asio::awaitable<std::expected<void, Error>> connect();
  /// Yields once the aborted read has been reported and an attempt under way has unwound.
  asio::awaitable<std::expected<void, Error>> close();
  asio::awaitable<std::expected<void, Error>> write(std::vector<std::byte> bytes) override;
  asio::any_io_executor getExecutor() override { return executor_; }
  /// Any thread: writes one small whole frame on the caller's own thread, while nothing else is being
  /// written. `begin` is called just before, when the connection can no longer go away under the write, and
  /// may call it off; false when nothing was written. A write that fails ends the connection.
  bool writeAtOnce(std::span<const std::byte> frame, const std::function<bool()>& begin);

  /// Closes without a coroutine, when no event loop runs any more.
  void abort() noexcept;

private:
  struct Activity;
  struct Attempt;
  struct Connection;
  using ConnectResult = std::expected<void, Error>;

  // Connecting (TcpTransportConnect.cpp)
  asio::awaitable<std::error_code> establish(Attempt& attempt);
  asio::awaitable<std::error_code> connectToAny(const std::vector<asio::ip::tcp::endpoint>& endpoints);
  asio::awaitable<std::error_code> connectTo(asio::ip::tcp::endpoint endpoint);
  void startDeadline(const std::shared_ptr<Attempt>& attempt);
  void giveUp(Attempt& attempt);
  void onConnected();
  Error onConnectFailed(const Attempt& attempt, std::error_code failure);
  void scheduleReconnect();
  void reconnect();

  // A connection's life (TcpTransport.cpp)
  asio::awaitable<void> readLoop(std::shared_ptr<Connection> connection);
  asio::awaitable<std::error_code> writeRest(std::span<const std::byte> rest);
  void deliver(std::span<const std::byte> chunk);
  void onDisconnected(Connection& connection, std::error_code reason);
  void reportState(bool connected, const std::string& reason);
  std::error_code closeSocket();
  void logEscaped(std::exception_ptr failure) noexcept;
  static asio::awaitable<void> ended(std::shared_ptr<Activity> activity);

  asio::any_io_executor executor_;
  std::shared_ptr<IVorlinLogger> logger_;
  asio::ip::tcp::socket socket_;
  asio::steady_timer reconnectTimer_;
  const SessionConfig config_;
  NameLookup lookup_;
  BytesCallback onBytes_;
  StateCallback onStateChanged_;
  std::atomic<bool> connected_{false};
  std::atomic<bool> stopping_{false};
  std::vector<std::byte> readBuffer_;
  std::shared_ptr<Attempt> attempt_;       // the newest
  std::shared_ptr<Connection> connection_; // the newest

  struct Writable {
    asio::ip::tcp::socket::native_handle_type socket;
    std::shared_ptr<Connection> connection;
  };
  std::mutex writableLock_; // held by writes of callers, and to close the socket
  std::optional<Writable> writable_;
};

/// Something under way that others can wait for the end of.
struct TcpTransport::Activity {
  explicit Activity(const asio::any_io_executor& executor) : changed(executor) {}
  void end() {
    over = true;
    changed.notify();
  }
  bool over = false;
  Wakeup changed;
};

/// One try to connect, from the look-up to the result.
struct TcpTransport::Attempt : Activity {
  explicit Attempt(const asio::any_io_executor& executor) : Activity(executor), deadline(executor) {}
  bool abandoned = false; // a newer connect or a close has taken over
  asio::steady_timer deadline;
};

/// One connection, from its success to its read loop's end.
struct TcpTransport::Connection : Activity {
  using Activity::Activity;
  bool lossReported = false;
};

} // namespace vorlinkit
