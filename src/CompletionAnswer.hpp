// The answer to a caller that has given a function instead of waiting on a future.
#pragma once

#include "PendingRequest.hpp"

#include <vorlinkit/IVorlinLogger.hpp>

#include <exception>
#include <expected>
#include <functional>
#include <memory>
#include <utility>
#include <variant>

namespace vorlinkit {

/// Logs what has left a user's completion; null: not a standard exception.
void reportCompletionException(const std::shared_ptr<IVorlinLogger>& logger, const std::exception* what) noexcept;

/// Calls a user's completion; what it throws is logged.
template <typename Completion, typename... Args>
void callCompletion(const std::shared_ptr<IVorlinLogger>& logger, const Completion& completion,
                    Args&&... args) noexcept {
  if (!completion) return;
  try {
    completion(std::forward<Args>(args)...);
  } catch (const std::exception& exception) {
    reportCompletionException(logger, &exception);
  } catch (...) {
    reportCompletionException(logger, nullptr);
  }
}

/// The counterpart of Answer: the function is called once, whatever becomes of it. One that is dropped unanswered
/// answers "MessageFramer stopped". `logger` has to outlive it.
template <typename Value> class CompletionAnswer {
public:
  using Outcome = std::expected<Value, Error>;
  using Completion = std::function<void(Outcome)>;

  CompletionAnswer(Completion completion, const std::shared_ptr<IVorlinLogger>& logger) noexcept
      : completion_(std::move(completion)), logger_(&logger) {}
  CompletionAnswer(CompletionAnswer&& other) noexcept
      : completion_(std::move(other.completion_)), logger_(other.logger_), open_(std::exchange(other.open_, false)) {}
  CompletionAnswer& operator=(CompletionAnswer&&) = delete;
  ~CompletionAnswer() {
    if (open_) give(std::unexpected(stoppedError()));
  }

  void give(Outcome outcome) noexcept {
    if (std::exchange(open_, false)) callCompletion(*logger_, completion_, std::move(outcome));
  }
  /// The caller is told otherwise.
  void withdraw() noexcept { open_ = false; }

private:
  Completion completion_;
  const std::shared_ptr<IVorlinLogger>* logger_;
  bool open_ = true;
};

/// Who is told what has come of an attempt to connect.
using ConnectAnswer = std::variant<Answer<void>, CompletionAnswer<void>>;

/// A request whose caller has given a function.
class CompletionRequest final : public PendingRequest {
public:
  CompletionRequest(std::uint16_t command, std::span<const std::byte> bytes, SendOptions how, SendCompletion completion,
                    const std::shared_ptr<IVorlinLogger>& logger)
      : PendingRequest(command, bytes, how), answer_(std::move(completion), logger) {}
  void complete(Outcome outcome) noexcept override { answer_.give(std::move(outcome)); }
  void withdraw() noexcept { answer_.withdraw(); }

private:
  CompletionAnswer<RawMessage> answer_;
};

} // namespace vorlinkit
