// Sending, on the caller's thread: directly, or by the I/O thread.
#include "VorlinSessionImpl.hpp"

#include "CompletionAnswer.hpp"
#include "Log.hpp"

#include <utility>

namespace vorlinkit {

namespace {

// A larger one would keep its caller in the system call for long, and seldom fits into the socket's buffer at once.
constexpr std::size_t smallPayload = 4096;

} // namespace

class VorlinSessionImpl::SendJob final : public IoJob {
public:
  SendJob(VorlinSessionImpl& session, std::unique_ptr<PendingRequest> request)
      : session_(session), request_(std::move(request)) {}
  /// A request of this connection ends with it; one of another is refused here, where connections come and go.
  void run() noexcept override {
    if (session_.isFor(request_->options))
      session_.framer_->submit(std::move(request_));
    else
      request_->complete(std::unexpected(notConnectedError()));
  }

private:
  VorlinSessionImpl& session_;
  std::unique_ptr<PendingRequest> request_;
};

class VorlinSessionImpl::RefuseJob final : public IoJob {
public:
  explicit RefuseJob(std::unique_ptr<PendingRequest> request) : request_(std::move(request)) {}
  void run() noexcept override { request_->complete(std::unexpected(notConnectedError())); }

private:
  std::unique_ptr<PendingRequest> request_;
};

void reportCompletionException(const std::shared_ptr<IVorlinLogger>& logger, const std::exception* what) noexcept {
  log(logger, LogLevel::err, "completion exception: {}", what ? what->what() : "unknown");
}

std::future<std::expected<RawMessage, Error>>
VorlinSessionImpl::send(std::uint16_t commandId, std::span<const std::byte> payload, SendOptions options) {
  if (!isConnected() || !isFor(options)) return readyWith<RawMessage>(notConnectedError());
  auto promised = std::make_unique<FutureRequest>(commandId, payload, withTimeout(options));
  auto result = promised->future();
  std::unique_ptr<PendingRequest> request = std::move(promised);
  pass(request);
  return result;
}

void VorlinSessionImpl::send(std::uint16_t commandId, std::span<const std::byte> payload, SendOptions options,
                             SendCompletion completion) {
  auto called =
      std::make_unique<CompletionRequest>(commandId, payload, withTimeout(options), std::move(completion), logger_);
  CompletionRequest& own = *called;
  std::unique_ptr<PendingRequest> request = std::move(called);
  try {
    if (inherited())
      request->complete(std::unexpected(notConnectedError()));
    else if (!isConnected() || !isFor(options))
      inbox_.push(std::make_unique<RefuseJob>(std::move(request)));
    else
      pass(request);
  } catch (...) { // there was no memory to pass it on: the caller has the exception
    own.withdraw();
    throw;
  }
}

SendOptions VorlinSessionImpl::withTimeout(SendOptions options) const noexcept {
  if (options.timeout.count() <= 0) options.timeout = config_.request_timeout;
  return options;
}

/// Whether a request may go out on the connection that is up.
bool VorlinSessionImpl::isFor(const SendOptions& options) const noexcept {
  return options.connection == 0 || options.connection == connection();
}

/// Takes the request, unless it throws.
void VorlinSessionImpl::pass(std::unique_ptr<PendingRequest>& request) {
  if (!sendDirectly(request)) inbox_.push(std::make_unique<SendJob>(*this, std::move(request)));
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
  // While the frame was made a response may have brought another client id, or another connection has come up: the line
  // that is open is that of the connection whose number can be read, and stays so to the end of the write.
  const auto result =
      directWrite.tryWrite(request, std::move(*frame), [&] { return clientId() == sender && isFor(request->options); });
  if (result == DirectWrite::Result::WrittenAndWake) inbox_.wake();
  return result != DirectWrite::Result::NotWritten;
}

/// I/O thread, before it handles what may make it write: keeps callers from writing, and takes over what one of them
/// has written.
void VorlinSessionImpl::claimDirectWrite() {
  directWriteClaimed_ = true;
  takeOver(transport_->directWrite().claim());
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
    directWriteClaimed_ = !transport_->directWrite().open(framer_->nextLook());
}

} // namespace vorlinkit
