// The life of the transport: carries out what ConnectionFsm decides.
#include "TcpTransport.hpp"

#include "Log.hpp"

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>

namespace vorlinkit {

namespace {

constexpr std::size_t readBufferSize = 65536;

/// How long a peer may take nothing: what the user says, else longer than any request that is answered takes.
std::chrono::milliseconds stallLimit(const SessionConfig& config) {
  using std::chrono::milliseconds;
  if (config.stall_timeout.count() > 0) return config.stall_timeout;
  constexpr milliseconds least{15000};
  const auto attempts = static_cast<milliseconds::rep>(std::max<std::uint32_t>(config.request_attempts, 1));
  if (config.request_timeout > milliseconds::max() / attempts) return milliseconds::max();
  return std::max(least, config.request_timeout * attempts);
}

/// Another one for every session, of this computer's and of the others'.
std::minstd_rand::result_type seedOf(const void* session) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  return static_cast<std::minstd_rand::result_type>(std::hash<const void*>()(session) ^ static_cast<std::size_t>(now));
}

Error transportError(const char* what, const std::error_code& reason) noexcept {
  return errorWith(ErrorCode::Transport, [&] { return what + reason.message(); });
}

} // namespace

TcpTransport::TcpTransport(asio::io_context& context, SessionConfig config, std::shared_ptr<IVorlinLogger> logger)
    : executor_(context.get_executor()), logger_(std::move(logger)), config_(std::move(config)), socket_(context),
      deadlineTimer_(context), reconnectTimer_(context), stallTimer_(context),
      lookup_(executor_, config_.host, config_.port),
      fsm_(asio::error::operation_aborted, {config_.reconnect_delay, config_.reconnect_delay_max}),
      random_(seedOf(this)), readBuffer_(readBufferSize), stallWatch_(stallLimit(config_)) {}

void TcpTransport::connect(ConnectAnswer caller) noexcept { carryOut(fsm_.connect(), std::move(caller)); }

std::expected<void, Error> TcpTransport::close() noexcept {
  connection_ = 0;
  const std::error_code failure = closeSocket();
  carryOut(fsm_.close());
  if (failure) return std::unexpected(transportError("Close failed: ", failure));
  return std::expected<void, Error>();
}

void TcpTransport::fail(std::error_code reason) noexcept { carryOut(fsm_.connectionFailed(fsm_.number(), reason)); }

void TcpTransport::carryOut(const ConnectionFsm::Decision& decision, std::optional<ConnectAnswer> caller) noexcept {
  if (decision.cancelReconnect) cancelReconnect();
  std::optional<Error> failure;
  if (decision.attemptFailed) failure = attemptFailed(*decision.attemptFailed);
  if (decision.lost) lost(*decision.lost);
  if (decision.scheduleReconnect) scheduleReconnect();
  if (failure) tellCaller(std::unexpected(std::move(*failure)));
  if (decision.lookUp) {
    caller_ = std::nullopt;
    if (caller) caller_.emplace(std::move(*caller));
    startAttempt();
  }
  if (decision.connectToAddress) connectTo(*decision.connectToAddress);
  if (decision.connected) connected();
}

Error TcpTransport::attemptFailed(const ConnectionFsm::Failure& failure) noexcept {
  deadlineTimer_.cancel();
  lookup_.abandon();
  closeSocket();
  const std::string reason = errorWith(ErrorCode::Transport, [&] {
                               return failure.timedOut ? "Connection timeout" : failure.reason.message();
                             }).message;
  log(logger_, LogLevel::err, "Connection failed: {}", reason);
  reportState(false, errorWith(ErrorCode::Transport, [&] { return "Connection failed: " + reason; }).message);
  return errorWith(failure.timedOut ? ErrorCode::Timeout : ErrorCode::Transport,
                   [&] { return "Failed to connect: " + reason; });
}

void TcpTransport::lost(std::error_code reason) noexcept {
  connection_ = 0;
  closeSocket();
  forgetWrite();
  const std::string message = transportError("", reason).message;
  const Error error = errorWith(ErrorCode::Transport, [&] { return "Disconnected: " + message; });
  log(logger_, LogLevel::warn, "Disconnected: {}", message);
  reportState(false, error.message);
  if (!onBytes_) return;
  try {
    onBytes_(std::unexpected(copyOf(error)));
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "on_bytes(disconnect) callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "on_bytes(disconnect) callback exception: unknown");
  }
}

void TcpTransport::scheduleReconnect() noexcept {
  if (!config_.auto_reconnect) return;
  const auto delay = fsm_.reconnectDelay(std::uniform_real_distribution(0.0, 1.0)(random_));
  log(logger_, LogLevel::warn, "Scheduling reconnect in {}ms", delay.count());
  reconnectAt_ = saturatingAdd(std::chrono::steady_clock::now(), delay);
  awaitReconnect();
}

void TcpTransport::cancelReconnect() noexcept {
  reconnectAt_ = TimePoint::max();
  reconnectTimer_.cancel();
}

/// One wait at a time, so that its memory is free; one that ends too early is followed by the next.
void TcpTransport::awaitReconnect() noexcept {
  if (reconnectAt_ == TimePoint::max() || awaitsReconnect_) return;
  try {
    reconnectTimer_.expires_at(reconnectAt_);
    reconnectTimer_.async_wait(HandlerIn(reconnectMemory_, [this](std::error_code) {
      awaitsReconnect_ = false;
      if (std::chrono::steady_clock::now() < reconnectAt_) return awaitReconnect();
      reconnectAt_ = TimePoint::max();
      carryOut(fsm_.reconnectDue());
    }));
    awaitsReconnect_ = true;
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "transport exception: {}", exception.what());
  }
}

// NOLINTNEXTLINE(bugprone-exception-escape): visit throws for a variant that an exception has left empty; none does
void TcpTransport::tellCaller(std::expected<void, Error> result) noexcept {
  if (!caller_) return;
  ConnectAnswer caller = std::move(*caller_);
  caller_.reset();
  std::visit([&](auto& answer) { answer.give(std::move(result)); }, caller);
}

/// The session fences the user's observer; this fence keeps a broken one from ending the I/O thread.
void TcpTransport::reportState(bool connected, const std::string& reason) noexcept {
  if (!onStateChanged_) return;
  try {
    onStateChanged_(connected, reason);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: unknown");
  }
}

std::error_code TcpTransport::closeSocket() noexcept {
  directWrite_.detach();
  std::error_code failure;
  if (socket_.is_open()) socket_.close(failure);
  return failure;
}

} // namespace vorlinkit
