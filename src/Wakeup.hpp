#pragma once

#include "Asio.hpp"

#include <memory>
#include <utility>
#include <vector>

namespace vorlinkit {

/// What a coroutine waits on until another one says go on. Remembers nothing: the waiter looks at its
/// own condition before it waits and after. I/O thread only, so nothing is lost in between.
class Wakeup {
public:
  explicit Wakeup(asio::any_io_executor executor) : executor_(std::move(executor)) {}

  /// Suspends the calling coroutine until the next notify().
  asio::awaitable<void> wait() {
    return asio::async_initiate<const asio::use_awaitable_t<>&, void()>(
        [this](auto handler) {
          waiters_.push_back(std::make_unique<WaiterFor<decltype(handler)>>(std::move(handler)));
        },
        asio::use_awaitable);
  }

  /// Lets every waiter go on, in order, each in a turn of its own of the event loop.
  void notify() {
    std::swap(waiters_, released_); // both keep their memory
    for (auto& waiter : released_)
      waiter->resume(executor_);
    released_.clear();
  }

private:
  struct Waiter {
    Waiter() = default;
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    virtual ~Waiter() = default;
    virtual void resume(const asio::any_io_executor& executor) = 0;
  };

  template <typename Handler> struct WaiterFor final : Waiter {
    explicit WaiterFor(Handler given) : handler(std::move(given)) {}
    void resume(const asio::any_io_executor& executor) override { asio::post(executor, std::move(handler)); }
    Handler handler;
  };

  asio::any_io_executor executor_;
  std::vector<std::unique_ptr<Waiter>> waiters_;
  std::vector<std::unique_ptr<Waiter>> released_;
};

} // namespace vorlinkit
