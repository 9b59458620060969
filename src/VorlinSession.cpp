#include <vorlinkit/VorlinSession.hpp>

#include "IoThread.hpp"
#include "VorlinSessionImpl.hpp"

#include <utility>

namespace vorlinkit {

VorlinSession::VorlinSession(SessionConfig config, std::shared_ptr<IVorlinLogger> logger)
    : impl_(std::make_unique<VorlinSessionImpl>(std::move(config), std::move(logger))) {}

VorlinSession::~VorlinSession() { VorlinSessionImpl::dispose(std::move(impl_)); }

std::future<std::expected<void, Error>> VorlinSession::connect() { return impl_->connect(); }
void VorlinSession::connect(ConnectCompletion completion) { impl_->connect(std::move(completion)); }
void VorlinSession::disconnect() { start_disconnect().wait(); }
std::future<void> VorlinSession::start_disconnect() {
  auto closed = impl_->startDisconnect();
  if (!IoThreadMark::isHere()) return closed;
  std::promise<void> started;
  started.set_value();
  return started.get_future();
}
void VorlinSession::start_disconnect(DisconnectCompletion completion) { impl_->startDisconnect(std::move(completion)); }
bool VorlinSession::is_connected() const noexcept { return impl_->isConnected(); }
std::uint64_t VorlinSession::connection() const noexcept { return impl_->connection(); }
std::uint8_t VorlinSession::client_id() const noexcept { return impl_->clientId(); }

std::future<std::expected<RawMessage, Error>>
VorlinSession::send(std::uint16_t commandId, std::span<const std::byte> payload, SendOptions options) {
  return impl_->send(commandId, payload, options);
}

void VorlinSession::send(std::uint16_t commandId, std::span<const std::byte> payload, SendOptions options,
                         SendCompletion completion) {
  impl_->send(commandId, payload, options, std::move(completion));
}

void VorlinSession::on_notification(std::uint16_t commandId, NotificationHandler handler) {
  impl_->onNotification(commandId, std::move(handler));
}

void VorlinSession::on_frame(FrameObserver observer) { impl_->onFrame(std::move(observer)); }

void VorlinSession::on_connection_state_changed(StateObserver observer) {
  impl_->onConnectionStateChanged(std::move(observer));
}

bool VorlinSession::is_io_thread() const noexcept { return impl_->isIoThread(); }

void VorlinSession::set_chunk_hooks(std::function<void()> before, std::function<void()> after) {
  impl_->setChunkHooks(std::move(before), std::move(after));
}

} // namespace vorlinkit
