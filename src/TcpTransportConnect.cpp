// Connecting: attempts, their deadline, and the next one after a failure.
#include "TcpTransport.hpp"

#include "Deadline.hpp"
#include "Log.hpp"
#include "Platform.hpp"

#include <utility>

namespace vorlinkit {

asio::awaitable<std::expected<void, Error>> TcpTransport::connect() {
  // This attempt takes over at once; what it finds under way ends before it starts.
  const auto attempt = std::make_shared<Attempt>(executor_);
  const auto olderAttempt = std::exchange(attempt_, attempt);
  const auto olderConnection = connection_;
  struct EndsAnyway {
    Attempt& attempt;
    ~EndsAnyway() {
      attempt.deadline.cancel();
      attempt.end();
    }
  } endsAnyway{*attempt};

  stopping_ = false;
  if (olderAttempt) giveUp(*olderAttempt);
  closeSocket();
  if (olderAttempt) co_await ended(olderAttempt);
  if (olderConnection) co_await ended(olderConnection);

  startDeadline(attempt);
  std::error_code failure = asio::error::operation_aborted;
  if (!attempt->abandoned) failure = co_await establish(*attempt);
  if (!failure) {
    onConnected();
    co_return std::expected<void, Error>();
  }
  Error error = onConnectFailed(*attempt, failure);
  co_return std::unexpected(std::move(error));
}

asio::awaitable<std::error_code> TcpTransport::establish(Attempt& attempt) {
  NameLookup::Result found = co_await lookup_.find();
  if (found.failure) co_return found.failure;
  log(logger_, LogLevel::info, "Connecting to {}:{}", config_.host, config_.port);
  std::error_code failure = co_await connectToAny(found.endpoints);
  if (failure) co_return failure;
  // Given up in the very turn in which it succeeded.
  if (attempt.abandoned || !socket_.is_open()) co_return std::error_code(asio::error::operation_aborted);
  platform::prepareConnection(socket_, config_.request_timeout);
  socket_.non_blocking(true, failure);
  co_return failure;
}

asio::awaitable<std::error_code> TcpTransport::connectToAny(const std::vector<asio::ip::tcp::endpoint>& endpoints) {
  std::error_code failure = asio::error::host_not_found;
  for (const auto& endpoint : endpoints) {
    failure = co_await connectTo(endpoint);
    if (!failure || failure == asio::error::operation_aborted) break;
  }
  co_return failure;
}

asio::awaitable<std::error_code> TcpTransport::connectTo(asio::ip::tcp::endpoint endpoint) {
  closeSocket();
  std::error_code failure = platform::openStream(socket_, endpoint.protocol());
  if (failure) co_return failure;
  co_await socket_.async_connect(endpoint, asio::redirect_error(asio::use_awaitable, failure));
  // The deadline or a close shut the socket while another error was on its way.
  if (failure && !socket_.is_open()) failure = asio::error::operation_aborted;
  if (!failure && platform::connectedToItself(socket_)) {
    closeSocket();
    failure = asio::error::connection_refused;
  }
  co_return failure;
}

void TcpTransport::startDeadline(const std::shared_ptr<Attempt>& attempt) {
  attempt->deadline.expires_at(saturatingAdd(std::chrono::steady_clock::now(), config_.connection_timeout));
  attempt->deadline.async_wait([this, attempt](std::error_code cancelled) {
    if (cancelled || attempt->over || attempt->abandoned || attempt != attempt_) return;
    lookup_.abandon();
    // A connect that has succeeded, though nobody has been told yet, is left alone.
    std::error_code notConnected;
    socket_.remote_endpoint(notConnected);
    if (notConnected) closeSocket();
  });
}

void TcpTransport::giveUp(Attempt& attempt) {
  if (attempt.over) return;
  attempt.abandoned = true;
  attempt.deadline.cancel();
  lookup_.abandon();
}

void TcpTransport::onConnected() {
  reconnectTimer_.cancel();
  connected_ = true;
  log(logger_, LogLevel::info, "Connected successfully");
  const auto connection = std::make_shared<Connection>(executor_);
  connection_ = connection;
  {
    const std::lock_guard guard(writableLock_);
    writable_ = {socket_.native_handle(), connection};
  }
  reportState(true, "");
  asio::co_spawn(executor_, readLoop(connection), [this, connection](std::exception_ptr failure) {
    if (failure) {
      logEscaped(std::move(failure));
      onDisconnected(*connection, asio::error::no_memory);
    }
    connection->end();
  });
}

Error TcpTransport::onConnectFailed(const Attempt& attempt, std::error_code failure) {
  const bool ended = failure == asio::error::operation_aborted || failure == asio::error::bad_descriptor;
  const bool timedOut = ended && !attempt.abandoned && attempt.deadline.expiry() <= std::chrono::steady_clock::now();
  const std::string reason = timedOut ? "Connection timeout" : failure.message();
  closeSocket();
  log(logger_, LogLevel::err, "Connection failed: {}", reason);
  reportState(false, "Connection failed: " + reason);
  scheduleReconnect();
  return {timedOut ? ErrorCode::Timeout : ErrorCode::Transport, "Failed to connect: " + reason};
}

void TcpTransport::scheduleReconnect() {
  if (stopping_ || !config_.auto_reconnect) return;
  log(logger_, LogLevel::warn, "Scheduling reconnect in {}ms", config_.reconnect_delay.count());
  reconnectTimer_.expires_at(saturatingAdd(std::chrono::steady_clock::now(), config_.reconnect_delay));
  reconnectTimer_.async_wait([this](std::error_code cancelled) {
    if (!cancelled && !stopping_) reconnect();
  });
}

void TcpTransport::reconnect() {
  const bool connecting = attempt_ && !attempt_->over;
  if (connected_ || connecting) return;
  asio::co_spawn(executor_, connect(), [this](std::exception_ptr failure, ConnectResult) {
    if (failure) logEscaped(std::move(failure));
  });
}

} // namespace vorlinkit
