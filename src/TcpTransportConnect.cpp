// Attempts to connect: look-up, deadline, one address after the other.
#include "TcpTransport.hpp"

#include "Log.hpp"
#include "Platform.hpp"
#include "SaturatingTime.hpp"

#include <utility>

namespace vorlinkit {

void TcpTransport::startAttempt() noexcept {
  const Number number = fsm_.number();
  try {
    startDeadline(number);
    lookup_.find([this, number](NameLookup::Result found) { lookedUp(number, std::move(found)); });
  } catch (const std::exception&) { // only memory can run out in here
    carryOut(fsm_.lookedUp(number, asio::error::no_memory, 0));
  }
}

void TcpTransport::startDeadline(Number number) {
  deadlineTimer_.expires_at(saturatingAdd(std::chrono::steady_clock::now(), config_.connection_timeout));
  deadlineTimer_.async_wait(HandlerIn(deadlineMemory_, [this, number](std::error_code cancelled) {
    if (cancelled || !fsm_.isCurrent(number)) return;
    // A connect that has succeeded, though nobody has been told yet, is left alone.
    std::error_code notConnected;
    socket_.remote_endpoint(notConnected);
    if (notConnected) carryOut(fsm_.deadlinePassed(number));
  }));
}

void TcpTransport::lookedUp(Number number, NameLookup::Result found) noexcept {
  if (!fsm_.isCurrent(number)) return;
  addresses_ = std::move(found.endpoints);
  if (!found.failure && addresses_.empty()) found.failure = asio::error::host_not_found;
  if (!found.failure) log(logger_, LogLevel::info, "Connecting to {}:{}", config_.host, config_.port);
  carryOut(fsm_.lookedUp(number, found.failure, addresses_.size()));
}

void TcpTransport::connectTo(std::size_t address) noexcept {
  const Number number = fsm_.number();
  const auto endpoint = addresses_[address];
  closeSocket();
  std::error_code failure;
  try {
    failure = platform::openStream(socket_, endpoint.protocol());
    if (!failure) {
      socket_.async_connect(
          endpoint, HandlerIn(connectMemory_, [this, number](std::error_code ended) { connectEnded(number, ended); }));
      return;
    }
  } catch (const std::exception&) { // only memory can run out in here
    failure = asio::error::no_memory;
  }
  carryOut(fsm_.connectEnded(number, failure));
}

void TcpTransport::connectEnded(Number number, std::error_code failure) noexcept {
  // The socket is another attempt's by now, or has been closed by the deadline.
  if (!fsm_.isCurrent(number) || fsm_.state() != ConnectionFsm::State::Connecting) return;
  if (!failure && platform::connectedToItself(socket_)) failure = asio::error::connection_refused;
  if (!failure) failure = prepare();
  carryOut(fsm_.connectEnded(number, failure));
}

std::error_code TcpTransport::prepare() noexcept {
  std::error_code failure;
  try {
    failure = platform::watchForBytesOnly(socket_);
  } catch (const std::exception&) { // only memory can run out in here
    failure = asio::error::no_memory;
  }
  platform::prepareConnection(socket_, stallWatch_.limit());
  if (!failure) socket_.non_blocking(true, failure);
  return failure;
}

void TcpTransport::connected() noexcept {
  deadlineTimer_.cancel();
  connection_ = fsm_.number();
  log(logger_, LogLevel::info, "Connected successfully");
  directWrite_.attach([socket = socket_.native_handle()](std::span<const std::byte> bytes) {
    return platform::writeSome(socket, bytes);
  });
  reportState(true, "");
  tellCaller(std::expected<void, Error>());
  awaitReadable();
}

} // namespace vorlinkit
