// A connection's life: read, write, close, loss.
#include "TcpTransport.hpp"

#include "Deadline.hpp"
#include "Log.hpp"
#include "Platform.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vorlinkit {

namespace {

constexpr std::size_t readBufferSize = 65536;
// A peer is given time to read even by those who give it none to answer.
constexpr std::chrono::milliseconds leastPatience{20};

Error transportError(const char* what, const std::error_code& reason) {
  return {ErrorCode::Transport, what + reason.message()};
}

} // namespace

TcpTransport::TcpTransport(asio::io_context& context, SessionConfig config, std::shared_ptr<IVorlinLogger> logger)
    : executor_(context.get_executor()), logger_(std::move(logger)), socket_(context), reconnectTimer_(context),
      config_(std::move(config)), lookup_(executor_, config_.host, config_.port), readBuffer_(readBufferSize) {}

asio::awaitable<void> TcpTransport::readLoop(std::shared_ptr<Connection> connection) {
  std::error_code failure = asio::error::operation_aborted; // unless a read says otherwise
  while (!stopping_ && connected_ && connection == connection_ && socket_.is_open()) {
    std::error_code readFailure;
    const std::size_t count = co_await socket_.async_read_some(asio::buffer(readBuffer_),
                                                               asio::redirect_error(asio::use_awaitable, readFailure));
    if (readFailure) {
      failure = readFailure;
      break;
    }
    if (count != 0) deliver(std::span(readBuffer_).first(count));
  }
  onDisconnected(*connection, failure);
}

void TcpTransport::deliver(std::span<const std::byte> chunk) {
  if (!onBytes_) return;
  try {
    onBytes_(chunk);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "on_bytes callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "on_bytes callback exception: unknown");
  }
}

asio::awaitable<std::expected<void, Error>> TcpTransport::write(std::vector<std::byte> bytes) {
  if (!connected_ || !socket_.is_open()) co_return std::unexpected(Error{ErrorCode::Transport, "Not connected"});

  // Nearly every request fits into the socket's buffer at once; only what does not fit is waited for.
  const auto connection = connection_;
  std::error_code failure;
  std::size_t written = socket_.write_some(asio::buffer(bytes), failure);
  if (failure == asio::error::would_block || failure == asio::error::try_again) failure.clear();
  if (!failure && written < bytes.size()) failure = co_await writeRest(std::span(bytes).subspan(written));
  if (!failure) co_return std::expected<void, Error>();

  if (connected_ && connection == connection_) onDisconnected(*connection, failure);
  co_return std::unexpected(transportError("Write failed: ", failure));
}

bool TcpTransport::writeAtOnce(std::span<const std::byte> frame, const std::function<bool()>& begin) {
  const std::lock_guard guard(writableLock_);
  if (!writable_ || !platform::sendBufferIsEmpty(writable_->socket) || !begin()) return false;
  // There is room: what the socket does not take now it will not take later.
  if (const std::error_code failure = platform::writeAtOnce(writable_->socket, frame))
    asio::post(executor_,
               [this, connection = writable_->connection, failure] { onDisconnected(*connection, failure); });
  return true;
}

/// Writes what the socket did not take at once. A peer that takes nothing for `request_timeout` has stopped
/// reading: nobody waits longer for that than for an answer.
asio::awaitable<std::error_code> TcpTransport::writeRest(std::span<const std::byte> rest) {
  struct Watch {
    bool over = false;
    bool stalled = false;
  };
  const auto watch = std::make_shared<Watch>(); // the timer may fire when the write has just ended
  const auto connection = connection_;
  asio::steady_timer patience(executor_);
  std::error_code failure;
  while (!rest.empty() && !failure) {
    const auto longest = std::max(config_.request_timeout, leastPatience);
    patience.expires_at(saturatingAdd(std::chrono::steady_clock::now(), longest));
    patience.async_wait([this, watch, connection](std::error_code cancelled) {
      if (cancelled || watch->over) return;
      watch->stalled = true;
      onDisconnected(*connection, asio::error::timed_out);
    });
    const std::size_t written = co_await socket_.async_write_some(asio::buffer(rest.data(), rest.size()),
                                                                  asio::redirect_error(asio::use_awaitable, failure));
    rest = rest.subspan(written);
  }
  watch->over = true;
  if (watch->stalled && failure) failure = asio::error::timed_out;
  co_return failure;
}

asio::awaitable<std::expected<void, Error>> TcpTransport::close() {
  stopping_ = true;
  connected_ = false;
  reconnectTimer_.cancel();
  const auto attempt = attempt_;
  const auto connection = connection_;
  if (attempt) giveUp(*attempt);
  const std::error_code failure = closeSocket();
  if (attempt) co_await ended(attempt);
  if (connection) co_await ended(connection);
  if (failure) co_return std::unexpected(transportError("Close failed: ", failure));
  co_return std::expected<void, Error>();
}

void TcpTransport::abort() noexcept {
  stopping_ = true;
  connected_ = false;
  try {
    reconnectTimer_.cancel();
    if (attempt_) giveUp(*attempt_);
    closeSocket();
  } catch (...) { // NOLINT: out of memory at the very end; the destructors close what is left
  }
}

/// Reports the end of a connection, once, whoever notices it first.
void TcpTransport::onDisconnected(Connection& connection, std::error_code reason) {
  if (std::exchange(connection.lossReported, true)) return;
  connected_ = false;
  closeSocket();
  const std::string message = reason.message();
  log(logger_, LogLevel::warn, "Disconnected: {}", message);
  reportState(false, "Disconnected: " + message);
  if (onBytes_) {
    try {
      onBytes_(std::unexpected(Error{ErrorCode::Transport, "Disconnected: " + message}));
    } catch (const std::exception& exception) {
      log(logger_, LogLevel::err, "on_bytes(disconnect) callback exception: {}", exception.what());
    } catch (...) {
      log(logger_, LogLevel::err, "on_bytes(disconnect) callback exception: unknown");
    }
  }
  if (!stopping_) scheduleReconnect();
}

/// The session fences the user's observer; this fence keeps a broken one from ending the I/O thread.
void TcpTransport::reportState(bool connected, const std::string& reason) {
  if (!onStateChanged_) return;
  try {
    onStateChanged_(connected, reason);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: unknown");
  }
}

std::error_code TcpTransport::closeSocket() {
  const std::lock_guard guard(writableLock_);
  writable_.reset();
  std::error_code failure;
  if (socket_.is_open()) socket_.close(failure);
  return failure;
}

void TcpTransport::logEscaped(std::exception_ptr failure) noexcept {
  try {
    std::rethrow_exception(std::move(failure));
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "transport exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "transport exception: unknown");
  }
}

asio::awaitable<void> TcpTransport::ended(std::shared_ptr<Activity> activity) {
  while (!activity->over)
    co_await activity->changed.wait();
}

} // namespace vorlinkit
