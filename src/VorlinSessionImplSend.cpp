// Sending: from the caller's thread, by the way of the inbox or past it.
#include "VorlinSessionImpl.hpp"

#include <utility>

namespace vorlinkit {

namespace {

// Surely fits into the socket's buffer of a machine that has answered everything.
constexpr std::size_t smallPayload = 4096;

} // namespace

class VorlinSessionImpl::SendJob final : public IoJob {
public:
  SendJob(MessageFramer& framer, std::unique_ptr<FutureRequest> request)
      : framer_(framer), request_(std::move(request)) {}
  void run() override { framer_.submit(std::move(request_)); }

private:
  MessageFramer& framer_;
  std::unique_ptr<FutureRequest> request_;
};

std::future<std::expected<RawMessage, Error>> VorlinSessionImpl::send(std::uint16_t commandId,
                                                                      std::span<const std::byte> payload) {
  if (!isConnected()) return readyWith<RawMessage>({ErrorCode::Transport, "Not connected"});
  auto request = std::make_unique<FutureRequest>(commandId, payload);
  auto result = request->future();
  if (!sendHere(request)) inbox_.push(std::make_unique<SendJob>(*framer_, std::move(request)));
  return result;
}

/// Writes the request on the caller's thread when the session is quiet, which spares the switch to the I/O
/// thread. That thread hears of it when it next wakes: by the response, the running timer, or the loss of
/// the connection. Observers run on the I/O thread, so with one the request goes there, too.
bool VorlinSessionImpl::sendHere(std::unique_ptr<FutureRequest>& request) {
  if (!inbox_.wayPastIsOpen() || request->payload.size() > smallPayload || callbacks_.observesFrames()) return false;
  const std::uint8_t sender = clientId();
  const auto frame = codec_->encodeRequest(request->commandId, sender, request->payload);
  if (!frame) return false;
  const auto begin = [&] {
    // A response may have brought another client id while the frame was made.
    if (begun_ != nullptr || clientId() != sender || !inbox_.takeWayPast()) return false;
    request->begun = {std::chrono::steady_clock::now(), frame->size()};
    begun_ = request.release();
    return true;
  };
  if (!transport_->writeAtOnce(*frame, begin)) return false;
  if (!framer_->keepsTime()) inbox_.wake();
  return true;
}

/// I/O thread: takes over what a caller has begun. Called wherever it may matter: before received bytes,
/// other requests, time-outs and losses are looked at.
void VorlinSessionImpl::submitBegun() {
  if (begun_ == nullptr) return;
  // First, as it may have been opened again meanwhile: the next caller would find the slot free.
  inbox_.shutWayPast();
  framer_->submit(std::unique_ptr<FutureRequest>(begun_.exchange(nullptr)));
}

/// I/O thread: lets the next caller write himself if nothing is under way.
void VorlinSessionImpl::offerWayPast() {
  if (framer_->allAnswered()) inbox_.openWayPast();
}

} // namespace vorlinkit
