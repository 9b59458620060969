#include "CallbackSlots.hpp"

namespace vorlinkit {

void CallbackSlots::setNotificationHandler(std::uint16_t commandId, NotificationHandler handler) {
  auto next = shared(std::move(handler));
  const std::lock_guard guard(notificationLock_);
  if (next || notificationHandlers_.contains(commandId)) notificationHandlers_[commandId].swap(next);
  registrations_.fetch_add(1, std::memory_order_release);
}

void CallbackSlots::lookUp(std::uint16_t commandId, LookedUp& result) {
  std::shared_ptr<const NotificationHandler> replaced;
  const std::lock_guard guard(notificationLock_);
  const auto registered = notificationHandlers_.find(commandId);
  replaced = std::exchange(result.handler, registered == notificationHandlers_.end() ? nullptr : registered->second);
  result.commandId = commandId;
  result.registrations = registrations_.load(std::memory_order_relaxed);
}

void CallbackSlots::clear() {
  setFrameObserver({});
  setStateObserver({});
  forgetReplacedHandlers();
  decltype(notificationHandlers_) handlers;
  const std::lock_guard guard(notificationLock_);
  handlers.swap(notificationHandlers_);
}

} // namespace vorlinkit
