// Sending, on the caller's thread: directly, or by the I/O thread.
#include "VorlinSessionImpl.hpp"

#include <utility>

namespace vorlinkit {

namespace {

// A larger one would keep its caller in the system call for long, and seldom fits into the socket's buffer at once.
constexpr std::size_t smallPayload = 4096;

} // namespace

class VorlinSessionImpl::SendJob final : public IoJob {
public:
  SendJob(MessageFramer& framer, std::unique_ptr<PendingRequest> request)
      : framer_(framer), request_(std::move(request)) {}
  void run() noexcept override { framer_.submit(std::move(request_)); }

private:
  MessageFramer& framer_;
  std::unique_ptr<PendingRequest> request_;
};

std::future<std::expected<RawMessage, Error>> VorlinSessionImpl::send(std::uint16_t commandId,
                                                                      std::span<const std::byte> payload) {
  if (!isConnected()) return readyWith<RawMessage>({ErrorCode::Transport, "Not connected"});
  auto promised = std::make_unique<FutureRequest>(commandId, payload);
  auto result = promised->future();
  std::unique_ptr<PendingRequest> request = std::move(promised);
  if (!sendDirectly(request)) inbox_.push(std::make_unique<SendJob>(*framer_, std::move(request)));
  return result;
}

/// Writes the request here when the session is quiet, which spares the switch to the I/O thread. That thread hears of
/// it when it next handles an event: the response, the running timer, or the loss of the connection. Observers run on
/// the I/O thread, so with one the request goes there, too.
bool VorlinSessionImpl::sendDirectly(std::unique_ptr<PendingRequest>& request) {
  DirectWrite& directWrite = transport_->directWrite();
  if (!directWrite.isOpen() || request->payload.size() > smallPayload || callbacks_.observesFrames()) return false;
  if (!inbox_.empty()) return false; // what this thread has sent before comes first
  const std::uint8_t sender = clientId();
  auto frame = codec_->encodeRequest(request->commandId, sender, request->payload);
  if (!frame) return false;
  // A response may have brought another client id while the frame was made.
  const auto result = directWrite.tryWrite(request, std::move(*frame), [&] { return clientId() == sender; });
  if (result == DirectWrite::Result::WrittenAndWake) inbox_.wake();
  return result != DirectWrite::Result::NotWritten;
}

/// I/O thread, before it handles what may make it write: keeps callers from writing, and takes over what one of them
/// has written.
void VorlinSessionImpl::claimDirectWrite() {
  directWriteClaimed_ = true;
  takeOver(transport_->directWrite().claim());
}

/// I/O thread, before it looks at received bytes, which may hold the answer to what a caller has written. While nothing
/// is in flight callers may go on, since nothing in the bytes can make this thread write.
void VorlinSessionImpl::claimDirectlyWritten() {
  if (directWriteClaimed_) return;
  auto written = transport_->directWrite().claimWritten();
  directWriteClaimed_ = written.has_value();
  takeOver(std::move(written));
}

void VorlinSessionImpl::takeOver(std::optional<WrittenRequest> written) {
  if (!written) return;
  if (!transport_->isConnected()) written->unwritten.clear(); // the rest of a frame is no use to another connection
  const std::error_code failure = written->failure;
  framer_->submitWritten(std::move(*written));
  if (failure) transport_->fail(failure);
}

/// I/O thread: lets the next caller write if nothing is under way.
void VorlinSessionImpl::openDirectWrite() {
  if (directWriteClaimed_ && framer_->isQuiet())
    directWriteClaimed_ = !transport_->directWrite().open(framer_->timerRuns());
}

} // namespace vorlinkit
