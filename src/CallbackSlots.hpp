#pragma once

#include <vorlinkit/VorlinSession.hpp>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace vorlinkit {

/// The user's callbacks, each slot under its own lock. Registered from any thread, looked up on the I/O
/// thread. What is looked up is shared, so that a callback that is replaced while it runs stays alive
/// until it returns; what is replaced is destroyed outside the lock, since destroying it may run user
/// code.
class CallbackSlots {
public:
  void setNotificationHandler(std::uint16_t commandId, NotificationHandler handler) {
    auto next = shared(std::move(handler));
    const std::lock_guard guard(notificationLock_);
    if (next || notificationHandlers_.contains(commandId)) notificationHandlers_[commandId].swap(next);
    registrations_.fetch_add(1, std::memory_order_release);
  }
  /// I/O thread; null if there is none. Stays valid until the next look-up, also when the handler is
  /// replaced meanwhile. A handler that was looked up lately is found without the lock.
  const NotificationHandler* notificationHandler(std::uint16_t commandId) {
    auto& found = lookedUp_[commandId % lookedUp_.size()];
    if (found.registrations != registrations_.load(std::memory_order_acquire) || found.commandId != commandId) {
      std::shared_ptr<const NotificationHandler> replaced;
      const std::lock_guard guard(notificationLock_);
      const auto registered = notificationHandlers_.find(commandId);
      replaced = std::exchange(found.handler, registered == notificationHandlers_.end() ? nullptr : registered->second);
      found.commandId = commandId;
      found.registrations = registrations_.load(std::memory_order_relaxed);
    }
    return found.handler.get();
  }
  /// I/O thread: lets go of handlers that were looked up and have been replaced since.
  void forgetReplacedHandlers() { lookedUp_ = {}; }

  void setFrameObserver(FrameObserver observer) {
    auto next = shared(std::move(observer));
    const std::lock_guard guard(frameLock_);
    frameObserver_.swap(next);
    observesFrames_.store(frameObserver_ != nullptr, std::memory_order_release);
  }
  /// Any thread.
  bool observesFrames() const noexcept { return observesFrames_.load(std::memory_order_acquire); }
  std::shared_ptr<const FrameObserver> frameObserver() const {
    if (!observesFrames_.load(std::memory_order_acquire)) return nullptr;
    const std::lock_guard guard(frameLock_);
    return frameObserver_;
  }

  void setStateObserver(StateObserver observer) {
    auto next = shared(std::move(observer));
    const std::lock_guard guard(stateLock_);
    stateObserver_.swap(next);
  }
  /// Calls the state observer with its lock held, so that it is never called after it was replaced. The
  /// lock is recursive, so that the observer may replace itself.
  void reportState(bool connected, const std::string& reason) const {
    const std::lock_guard guard(stateLock_);
    if (const auto observer = stateObserver_) (*observer)(connected, reason);
  }

  void clear() {
    setFrameObserver({});
    setStateObserver({});
    forgetReplacedHandlers();
    decltype(notificationHandlers_) handlers;
    const std::lock_guard guard(notificationLock_);
    handlers.swap(notificationHandlers_);
  }

private:
  template <typename Callback> static std::shared_ptr<const Callback> shared(Callback callback) {
    return callback ? std::make_shared<const Callback>(std::move(callback)) : nullptr;
  }

  mutable std::mutex notificationLock_;
  std::map<std::uint16_t, std::shared_ptr<const NotificationHandler>> notificationHandlers_;
  std::atomic<std::uint64_t> registrations_{1};
  struct LookedUp {
    std::uint64_t registrations = 0; // at the time of the look-up
    std::uint16_t commandId = 0;
    std::shared_ptr<const NotificationHandler> handler;
  };
  std::array<LookedUp, 16> lookedUp_; // I/O thread only
  mutable std::mutex frameLock_;
  std::shared_ptr<const FrameObserver> frameObserver_;
  std::atomic<bool> observesFrames_{false};
  mutable std::recursive_mutex stateLock_;
  std::shared_ptr<const StateObserver> stateObserver_;
};

} // namespace vorlinkit
