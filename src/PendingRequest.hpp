// A request on its way to an answer, and the promise that there will be one.
#pragma once

#include "LinkedList.hpp"

#include <vorlinkit/Error.hpp>
#include <vorlinkit/RawMessage.hpp>
#include <vorlinkit/VorlinSession.hpp>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <future>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vorlinkit {

/// An error whose text has to be made. It arrives without its text rather than not at all: short texts need no memory.
// NOLINTNEXTLINE(bugprone-exception-escape): the short text
template <typename MakeText> Error errorWith(ErrorCode code, MakeText&& makeText) noexcept {
  try {
    return {code, std::forward<MakeText>(makeText)()};
  } catch (const std::bad_alloc&) {
    return {code, "Out of memory"};
  }
}
inline Error copyOf(const Error& error) noexcept {
  Error copy = errorWith(error.code, [&] { return error.message; });
  copy.majorError = error.majorError;
  return copy;
}
inline Error notConnectedError() noexcept {
  return errorWith(ErrorCode::Transport, [] { return std::string("Not connected"); });
}
inline Error stoppedError() noexcept {
  return errorWith(ErrorCode::Stopped, [] { return std::string("MessageFramer stopped"); });
}

/// The sending end of a caller's future. Whatever becomes of it, the future gets a value or an Error:
/// one that is dropped unanswered answers "MessageFramer stopped". Later answers are lost.
template <typename Value> class Answer {
public:
  using Outcome = std::expected<Value, Error>;

  Answer() = default;
  Answer(Answer&& other) noexcept : promise_(std::move(other.promise_)), open_(std::exchange(other.open_, false)) {}
  Answer& operator=(Answer&&) = delete;
  ~Answer() {
    if (open_) give(std::unexpected(stoppedError()));
  }

  std::future<Outcome> future() { return promise_.get_future(); }
  // NOLINTNEXTLINE(bugprone-exception-escape): set_value throws when it is called twice
  void give(Outcome outcome) noexcept {
    if (std::exchange(open_, false)) promise_.set_value(std::move(outcome));
  }

private:
  std::promise<Outcome> promise_;
  bool open_ = true;
};

/// A future that has its answer from the beginning.
template <typename Value> std::future<std::expected<Value, Error>> readyWith(Error error) {
  std::promise<std::expected<Value, Error>> promise;
  promise.set_value(std::unexpected(std::move(error)));
  return promise.get_future();
}

/// One queued or in-flight request. Made on the caller's thread, completed on the I/O thread.
class PendingRequest : public LinkedListItem<PendingRequest> {
public:
  using Outcome = std::expected<RawMessage, Error>;

  /// `how.timeout` is the time that it has, no default any more.
  PendingRequest(std::uint16_t command, std::span<const std::byte> bytes, SendOptions how)
      : commandId(command), options(how), payload(bytes.begin(), bytes.end()) {}
  PendingRequest(const PendingRequest&) = delete;
  PendingRequest& operator=(const PendingRequest&) = delete;
  virtual ~PendingRequest() = default;

  /// Tells the caller; the first outcome counts.
  virtual void complete(Outcome outcome) noexcept = 0;

  const std::uint16_t commandId;
  const SendOptions options;
  const std::vector<std::byte> payload; // kept, since the frame is encoded afresh for every attempt
};

/// A request whose caller waits on a future, on any thread.
class FutureRequest final : public PendingRequest {
public:
  using PendingRequest::PendingRequest;
  std::future<Outcome> future() { return answer_.future(); }
  void complete(Outcome outcome) noexcept override { answer_.give(std::move(outcome)); }

private:
  Answer<RawMessage> answer_;
};

} // namespace vorlinkit
