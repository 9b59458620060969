#include "NameLookup.hpp"

#include "Platform.hpp"

#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>

namespace vorlinkit {

/// What the two threads share. It outlives the session when the look-up does.
struct NameLookup::Shared {
  Shared(std::string name, std::uint16_t number) : host(std::move(name)), port(number) {}

  const std::string host;
  const std::uint16_t port;
  std::mutex lock;
  bool running = false;
  std::function<void()> deliver; // empty while nobody waits
  std::optional<Result> result;

  /// The thread's work. No exception leaves it: it would end the program.
  void run() noexcept {
    Result found;
    try {
      found = ask();
    } catch (const std::exception&) { // only memory can run out
      found.failure = asio::error::no_memory;
    }
    const std::lock_guard guard(lock);
    running = false;
    if (!deliver) return;
    result = std::move(found);
    try {
      deliver();
    } catch (const std::exception&) { // NOLINT: the attempt's deadline ends the wait
    }
  }

private:
  Result ask() const {
    Result found;
    asio::io_context unused; // the blocking look-up needs no event loop, but asio wants one
    asio::ip::tcp::resolver resolver(unused);
    for (const auto& entry : resolver.resolve(host, std::to_string(port), found.failure))
      found.endpoints.push_back(entry.endpoint());
    return found;
  }
};

NameLookup::NameLookup(asio::any_io_executor executor, std::string host, std::uint16_t port)
    : executor_(std::move(executor)), shared_(std::make_shared<Shared>(std::move(host), port)) {}

NameLookup::~NameLookup() { abandon(); }

void NameLookup::find(Done done) {
  Result result;
  std::error_code notNumeric;
  const auto address = asio::ip::make_address(shared_->host, notNumeric);
  if (shared_->host.contains('\0')) // the system would look for what stands before it
    result.failure = asio::error::invalid_argument;
  else if (notNumeric) {
    done_ = std::move(done);
    result.failure = startUnlessRunning();
    if (!result.failure) return;
    done = std::exchange(done_, nullptr);
  } else
    result.endpoints.emplace_back(address, shared_->port);
  done(std::move(result));
}

/// Sees to it that the thread's result, or that of the one that still runs, is delivered.
std::error_code NameLookup::startUnlessRunning() {
  const std::lock_guard guard(shared_->lock);
  // The thread holds the lock, too, while it posts, so that the event loop cannot go away meanwhile: whoever
  // ends it abandons the look-up first.
  shared_->deliver = [this] { asio::post(executor_, [this] { onAnswered(); }); };
  shared_->result.reset();
  if (shared_->running) return {};
  try {
    platform::startThread([shared = shared_] { shared->run(); }).detach();
    shared_->running = true;
    return {};
  } catch (const std::system_error& noThread) {
    shared_->deliver = nullptr;
    return noThread.code();
  }
}

void NameLookup::onAnswered() {
  std::optional<Result> result;
  {
    const std::lock_guard guard(shared_->lock);
    if (!shared_->result) return; // abandoned since
    shared_->deliver = nullptr;
    result = std::exchange(shared_->result, std::nullopt);
  }
  if (const Done done = std::exchange(done_, nullptr)) done(std::move(*result));
}

void NameLookup::abandon() noexcept {
  done_ = nullptr;
  const std::lock_guard guard(shared_->lock);
  shared_->deliver = nullptr;
  shared_->result.reset();
}

} // namespace vorlinkit
