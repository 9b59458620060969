// A connection's bytes: read, written, and whether the peer takes them.
#include "TcpTransport.hpp"

#include "Log.hpp"
#include "Platform.hpp"

#include <algorithm>
#include <utility>

namespace vorlinkit {

namespace {

constexpr int readsInARow = 16; // then timers and other work get their turn

bool mustWait(const std::error_code& failure) {
  return failure == asio::error::would_block || failure == asio::error::try_again;
}

} // namespace

bool TcpTransport::isCurrent(Number number) const noexcept {
  return fsm_.isCurrent(number) && fsm_.state() == ConnectionFsm::State::Connected;
}

// -- reading --------------------------------------------------------------------------------------------------
// What has arrived stays in the socket until the I/O thread takes it by readSome(): nothing is ever on its way between
// the two, where a look at the line would miss it.

void TcpTransport::awaitReadable() noexcept {
  const Number number = fsm_.number();
  if (!isCurrent(number)) return;
  try {
    socket_.async_wait(asio::socket_base::wait_read,
                       HandlerIn(readMemory_, [this, number](std::error_code failure) { readable(number, failure); }));
  } catch (const std::exception&) { // only memory can run out in here
    fail(asio::error::no_memory);
  }
}

void TcpTransport::readable(Number number, std::error_code failure) noexcept {
  if (!isCurrent(number)) return;
  if (failure) return fail(failure);
  for (int reads = 0; reads < readsInARow && isCurrent(number); ++reads)
    if (readSome() < readBuffer_.size()) break;
  if (isCurrent(number)) awaitReadable();
}

void TcpTransport::readArrived() noexcept {
  const Number number = fsm_.number();
  std::error_code failure;
  std::size_t arrived = isCurrent(number) ? socket_.available(failure) : 0;
  while (arrived > 0 && isCurrent(number)) {
    const std::size_t read = readSome();
    if (read == 0) return;
    arrived -= std::min(read, arrived);
  }
}

// NOLINTNEXTLINE(bugprone-exception-escape): unlock throws for a lock that is not held
std::size_t TcpTransport::readSome() noexcept {
  const Number number = fsm_.number();
  auto reading = directWrite_.beginRead();
  if (reading.written) onCallerWrote_(std::move(*reading.written));
  if (!isCurrent(number)) return 0;
  std::error_code failure;
  const std::size_t count = socket_.read_some(asio::buffer(readBuffer_), failure);
  if (reading.nobodyWrites) reading.nobodyWrites.unlock();
  if (failure && !mustWait(failure)) fail(failure);
  if (count != 0) deliver(std::span(readBuffer_).first(count));
  return count;
}

void TcpTransport::deliver(std::span<const std::byte> chunk) noexcept {
  if (!onBytes_) return;
  try {
    onBytes_(chunk);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "on_bytes callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "on_bytes callback exception: unknown");
  }
}

// -- writing --------------------------------------------------------------------------------------------------

std::optional<ITransportWriteChannel::Written> TcpTransport::write(std::vector<std::byte> frame,
                                                                   std::size_t from) noexcept {
  if (!isConnected() || !socket_.is_open()) return std::unexpected(notConnectedError());

  // Nearly every request fits into the socket's buffer at once; only what does not fit is waited for.
  outgoing_.emplace(std::move(frame), from);
  std::error_code failure = writeSome();
  if (!failure && outgoing_) try {
      awaitWritable();
      lookForStall(stallWatch_.start(std::chrono::steady_clock::now(), pendingBytes()));
      return std::nullopt;
    } catch (const std::exception&) { // only memory can run out in here
      failure = asio::error::no_memory;
    }
  if (!failure) return Written();
  fail(failure);
  return std::unexpected(errorWith(ErrorCode::Transport, [&] { return "Write failed: " + failure.message(); }));
}

/// Writes what fits without waiting; nothing is outgoing when that was all.
std::error_code TcpTransport::writeSome() noexcept {
  std::error_code failure;
  const auto rest = std::span(outgoing_->frame).subspan(outgoing_->written);
  outgoing_->written += socket_.write_some(asio::buffer(rest.data(), rest.size()), failure);
  if (mustWait(failure)) failure.clear();
  if (outgoing_->written == outgoing_->frame.size()) outgoing_.reset();
  return failure;
}

void TcpTransport::awaitWritable() {
  socket_.async_wait(
      asio::socket_base::wait_write,
      HandlerIn(writeMemory_, [this, number = fsm_.number()](std::error_code failure) { writable(number, failure); }));
}

// NOLINTNEXTLINE(bugprone-exception-escape): the framer's onWritten does not throw
void TcpTransport::writable(Number number, std::error_code failure) noexcept {
  if (!isCurrent(number) || !outgoing_) return;
  if (!failure) failure = writeSome();
  if (!failure && outgoing_) try {
      return awaitWritable();
    } catch (const std::exception&) { // only memory can run out in here
      failure = asio::error::no_memory;
    }
  if (failure) return fail(failure);
  forgetWrite();
  if (onWritten_) onWritten_(Written());
}

std::uint64_t TcpTransport::pendingBytes() noexcept {
  return outgoing_->frame.size() - outgoing_->written + platform::unacknowledgedBytes(socket_.native_handle());
}

void TcpTransport::lookForStall(StallWatch::TimePoint when) {
  stallTimer_.expires_at(when);
  stallTimer_.async_wait(HandlerIn(stallMemory_, [this, number = fsm_.number()](std::error_code cancelled) {
    if (!cancelled && isCurrent(number) && outgoing_) stallDue();
  }));
}

void TcpTransport::stallDue() noexcept {
  std::error_code failure = asio::error::timed_out;
  if (const auto again = stallWatch_.look(std::chrono::steady_clock::now(), pendingBytes())) try {
      return lookForStall(*again);
    } catch (const std::exception&) { // only memory can run out in here
      failure = asio::error::no_memory;
    }
  fail(failure);
}

void TcpTransport::forgetWrite() noexcept {
  outgoing_.reset();
  stallTimer_.cancel();
}

} // namespace vorlinkit
