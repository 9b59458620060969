#include "NameLookup.hpp"

#include "Platform.hpp"

#include <functional>
#include <mutex>
#include <optional>
#include <utility>

namespace vorlinkit {

namespace {

NameLookup::Result lookUp(const std::string& host, std::uint16_t port) {
  NameLookup::Result result;
  asio::io_context unused; // the blocking look-up needs no event loop, but asio wants one
  asio::ip::tcp::resolver resolver(unused);
  for (const auto& entry : resolver.resolve(host, std::to_string(port), result.failure))
    result.endpoints.push_back(entry.endpoint());
  return result;
}

} // namespace

/// What the two threads share. It outlives the session when the look-up does.
struct NameLookup::Shared {
  std::mutex lock;
  std::function<void()> deliver; // empty once nobody waits any more
  std::optional<Result> result;
};

NameLookup::NameLookup(const asio::any_io_executor& executor)
    : executor_(executor), shared_(std::make_shared<Shared>()), answered_(std::make_shared<Wakeup>(executor)) {}

NameLookup::~NameLookup() { abandon(); }

asio::awaitable<NameLookup::Result> NameLookup::find(std::string host, std::uint16_t port) {
  Result result;
  std::error_code notNumeric;
  const auto address = asio::ip::make_address(host, notNumeric);
  if (!notNumeric) {
    result.endpoints.emplace_back(address, port);
    co_return result;
  }

  // The lock is held while the result is posted, so that the event loop cannot go away meanwhile:
  // whoever ends it abandons the look-up first.
  shared_->deliver = [executor = executor_, answered = answered_] {
    asio::post(executor, [answered] { answered->notify(); });
  };
  try {
    auto body = [shared = shared_, name = std::move(host), port] {
      Result found = lookUp(name, port);
      const std::lock_guard guard(shared->lock);
      shared->result = std::move(found);
      if (shared->deliver) shared->deliver();
    };
    platform::startThread(std::move(body)).detach();
  } catch (const std::system_error& noThread) {
    result.failure = noThread.code();
  }
  if (result.failure) co_return result;

  const auto shared = shared_;
  if (!abandoned_) co_await answered_->wait();
  const std::lock_guard guard(shared->lock);
  shared->deliver = nullptr;
  if (shared->result && !abandoned_) co_return std::move(*shared->result);
  result.failure = asio::error::operation_aborted;
  co_return result;
}

void NameLookup::abandon() {
  if (std::exchange(abandoned_, true)) return;
  {
    const std::lock_guard guard(shared_->lock);
    shared_->deliver = nullptr;
  }
  answered_->notify();
}

} // namespace vorlinkit
