#pragma once

#include "Asio.hpp"

#include <memory>
#include <utility>

namespace vorlinkit {

/// What a coroutine waits on until another one says go on. Remembers nothing: the waiter looks at its
/// own condition before it waits and after. I/O thread only, so nothing is lost in between.
class Wakeup {
public:
  explicit Wakeup(asio::any_io_executor executor) : executor_(std::move(executor)) {}

  /// Suspends the calling coroutine until the next notify() or resume().
  asio::awaitable<void> wait() {
    return asio::async_initiate<const asio::use_awaitable_t<>&, void()>(
        [this](auto handler) {
          std::unique_ptr<Waiter>* end = &first_;
          while (*end)
            end = &(*end)->next;
          *end = std::make_unique<WaiterFor<decltype(handler)>>(std::move(handler));
        },
        asio::use_awaitable);
  }

  /// Lets every waiter go on, in order, each in a turn of its own of the event loop.
  void notify() {
    forEachReleased([this](Waiter& waiter) { waiter.post(executor_); });
  }

  /// Lets every waiter go on now, inside this call: spares a turn of the event loop where the caller has
  /// nothing left to do that a waiter could disturb.
  void resume() {
    forEachReleased([](Waiter& waiter) { waiter.run(); });
  }

private:
  struct Waiter {
    Waiter() = default;
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    virtual ~Waiter() = default;
    virtual void post(const asio::any_io_executor& executor) = 0;
    virtual void run() = 0;
    std::unique_ptr<Waiter> next;
  };

  template <typename Handler> struct WaiterFor final : Waiter {
    explicit WaiterFor(Handler given) : handler(std::move(given)) {}
    void post(const asio::any_io_executor& executor) override { asio::post(executor, std::move(handler)); }
    void run() override { std::move(handler)(); }
    Handler handler;
  };

  /// Waiters that wait again meanwhile are not among those released.
  template <typename Release> void forEachReleased(Release release) {
    for (auto waiter = std::move(first_); waiter;) {
      auto next = std::move(waiter->next);
      release(*waiter);
      waiter = std::move(next);
    }
  }

  asio::any_io_executor executor_;
  std::unique_ptr<Waiter> first_;
};

} // namespace vorlinkit
