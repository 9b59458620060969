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
  void setNotificationHandler(std::uint16_t commandId, NotificationHandler handler);
  /// I/O thread; null if there is none. Stays valid until the next look-up, also when the handler is
  /// replaced meanwhile. A handler that was looked up lately is found without the lock.
  const NotificationHandler* notificationHandler(std::uint16_t commandId) {
    LookedUp& lately = lookedUp_[commandId % lookedUp_.size()];
    if (lately.commandId != commandId || lately.registrations != registrations_.load(std::memory_order_acquire))
      lookUp(commandId, lately);
    return lately.handler.get();
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
    if (!observesFrames()) return nullptr;
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

  void clear();

private:
  struct LookedUp {
    std::uint64_t registrations = 0; // at the time of the look-up
    std::uint16_t commandId = 0;
    std::shared_ptr<const NotificationHandler> handler;
  };
  void lookUp(std::uint16_t commandId, LookedUp& result);

  template <typename Callback> static std::shared_ptr<const Callback> shared(Callback callback) {
    return callback ? std::make_shared<const Callback>(std::move(callback)) : nullptr;
  }

  mutable std::mutex notificationLock_;
  std::map<std::uint16_t, std::shared_ptr<const NotificationHandler>> notificationHandlers_;
  std::atomic<std::uint64_t> registrations_{1};
  std::array<LookedUp, 16> lookedUp_; // I/O thread only
  mutable std::mutex frameLock_;
  std::shared_ptr<const FrameObserver> frameObserver_;
  std::atomic<bool> observesFrames_{false};
  mutable std::recursive_mutex stateLock_;
  std::shared_ptr<const StateObserver> stateObserver_;
};

} // namespace vorlinkit
