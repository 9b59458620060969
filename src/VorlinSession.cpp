#include <vorlinkit/VorlinSession.hpp>

#include "VorlinSessionImpl.hpp"

#include <utility>

namespace vorlinkit {

VorlinSession::VorlinSession(SessionConfig config, std::shared_ptr<IVorlinLogger> logger)
    : impl_(std::make_unique<VorlinSessionImpl>(std::move(config), std::move(logger))) {}

VorlinSession::~VorlinSession() { VorlinSessionImpl::dispose(std::move(impl_)); }

std::future<std::expected<void, Error>> VorlinSession::connect() { return impl_->connect(); }
void VorlinSession::disconnect() { impl_->disconnect(); }
std::future<void> VorlinSession::start_disconnect() { return impl_->startDisconnect(); }
bool VorlinSession::is_connected() const noexcept { return impl_->isConnected(); }
std::uint8_t VorlinSession::client_id() const noexcept { return impl_->clientId(); }

std::future<std::expected<RawMessage, Error>> VorlinSession::send(std::uint16_t commandId,
                                                                  std::span<const std::byte> payload) {
  return impl_->send(commandId, payload);
}

void VorlinSession::on_notification(std::uint16_t commandId, NotificationHandler handler) {
  impl_->onNotification(commandId, std::move(handler));
}

void VorlinSession::on_frame(FrameObserver observer) { impl_->callbacks().setFrameObserver(std::move(observer)); }

void VorlinSession::on_connection_state_changed(StateObserver observer) {
  impl_->callbacks().setStateObserver(std::move(observer));
}

bool VorlinSession::is_io_thread() const noexcept { return impl_->isIoThread(); }

void VorlinSession::set_chunk_hooks(std::function<void()> before, std::function<void()> after) {
  impl_->setChunkHooks(std::move(before), std::move(after));
}

} // namespace vorlinkit
