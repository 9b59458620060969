// Life cycle: made, started, fed with requests, failed, stopped.
#include "MessageFramer.hpp"

#include "Log.hpp"

#include <algorithm>
#include <utility>

namespace vorlinkit {

namespace {

/// A request whose caller is a coroutine on the executor.
class AwaitedRequest final : public PendingRequest {
public:
  struct Result {
    explicit Result(const asio::any_io_executor& executor) : arrived(executor) {}
    std::optional<Outcome> outcome;
    Wakeup arrived;
  };

  AwaitedRequest(std::uint16_t command, std::span<const std::byte> bytes, std::shared_ptr<Result> result)
      : PendingRequest(command, bytes), result_(std::move(result)) {}
  ~AwaitedRequest() override { complete(std::unexpected(stoppedError())); }

  void complete(Outcome outcome) override {
    const auto result = std::exchange(result_, nullptr);
    if (!result) return;
    result->outcome = std::move(outcome);
    result->arrived.notify();
  }

private:
  std::shared_ptr<Result> result_;
};

} // namespace

MessageFramer::MessageFramer(std::chrono::milliseconds requestTimeout, std::uint32_t requestAttempts,
                             std::shared_ptr<const ICodec> codec, ITransportWriteChannel& writeChannel,
                             Callbacks callbacks, std::shared_ptr<IVorlinLogger> logger)
    : requestTimeout_(requestTimeout), requestAttempts_(std::max<std::uint32_t>(requestAttempts, 1)),
      codec_(std::move(codec)), writeChannel_(writeChannel), callbacks_(std::move(callbacks)),
      logger_(std::move(logger)), executor_(writeChannel.getExecutor()),
      responseDeadline_(
          executor_, [this] { callbacks_.submitBegun(); }, [this] { sendLoop_.resume(); }),
      sendLoop_(executor_) {}

MessageFramer::~MessageFramer() {
  failAll(stoppedError(), true);
  responseDeadline_.stop();
}

void MessageFramer::start() {
  if (std::exchange(started_, true)) return;
  asio::co_spawn(executor_, processLoop(), [logger = logger_](std::exception_ptr failure) {
    if (failure) log(logger, LogLevel::critical, "send loop ended by an exception");
  });
}

void MessageFramer::submit(std::unique_ptr<PendingRequest> request) {
  if (closed_) {
    request->complete(std::unexpected(stoppedError()));
    return;
  }
  queue_.push_back(std::move(request));
  if (!active_) sendLoop_.resume();
}

asio::awaitable<MessageFramer::Outcome> MessageFramer::send(std::uint16_t commandId, std::vector<std::byte> payload) {
  const auto result = std::make_shared<AwaitedRequest::Result>(executor_);
  submit(std::make_unique<AwaitedRequest>(commandId, payload, result));
  while (!result->outcome)
    co_await result->arrived.wait();
  co_return std::move(*result->outcome);
}

void MessageFramer::failAll(const Error& error, bool closeQueue) {
  responseDeadline_.clear();
  if (const auto request = std::exchange(active_, nullptr)) request->complete(std::unexpected(error));
  for (const auto& request : std::exchange(queue_, {}))
    request->complete(std::unexpected(error));
  if (closeQueue) {
    closed_ = true;
    started_ = false;
    responseDeadline_.stop();
  }
  sendLoop_.notify();
}

} // namespace vorlinkit
