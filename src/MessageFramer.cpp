// Life cycle: made, fed with requests, failed, stopped.
#include "MessageFramer.hpp"

#include <utility>

namespace vorlinkit {

MessageFramer::MessageFramer(std::uint32_t requestAttempts, std::shared_ptr<const ICodec> codec,
                             ITransportWriteChannel& writeChannel, Callbacks callbacks,
                             std::shared_ptr<IVorlinLogger> logger)
    : codec_(std::move(codec)), writeChannel_(writeChannel), callbacks_(std::move(callbacks)),
      logger_(std::move(logger)), fsm_(requestAttempts, counters_),
      deadline_(writeChannel.getExecutor(), [this] { onTimer(); }) {
  writeChannel.setOnWritten([this](ITransportWriteChannel::Written result) {
    onWritten(std::move(result));
    drive();
  });
}

MessageFramer::~MessageFramer() { failAll(stoppedError(), true); }

void MessageFramer::submit(std::unique_ptr<PendingRequest> request) {
  fsm_.submit(std::move(request));
  drive();
}

void MessageFramer::submitWritten(WrittenRequest written) {
  if (written.request) fsm_.submitWritten(std::move(written.request), written.at, written.frameLength);
  if (!written.unwritten.empty()) fsm_.unwritten(std::move(written.unwritten), written.from);
  drive();
}

void MessageFramer::failAll(const Error& error, bool closeQueue) {
  if (closeQueue)
    fsm_.stop();
  else
    fsm_.lost(error);
  drive();
  if (closeQueue) deadline_.stop();
}

} // namespace vorlinkit
