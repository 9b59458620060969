// The life cycle: the I/O thread, its end, and the order in which things are taken apart.
#include "VorlinSessionImpl.hpp"

#include "IoThread.hpp"
#include "Log.hpp"
#include "Platform.hpp"

#include <utility>

namespace vorlinkit {

bool VorlinSessionImpl::inherited() const noexcept { return platform::processGeneration() != processGeneration_; }

/// Drains before the loop is stopped: what waits gets its answer while there is a loop to deliver it.
class VorlinSessionImpl::DrainJob final : public IoJob {
public:
  explicit DrainJob(VorlinSessionImpl& session) : session_(session) {}
  void run() noexcept override {
    session_.closeDown();
    session_.workGuard_.reset();
    session_.context_.stop();
  }

private:
  VorlinSessionImpl& session_;
};

std::unique_ptr<IoJob> VorlinSessionImpl::makeDrainJob() { return std::make_unique<DrainJob>(*this); }

void VorlinSessionImpl::dispose(std::unique_ptr<VorlinSessionImpl> session) {
  // There is no thread to end here, and its locks may be held for ever: the memory goes with the process.
  if (session->inherited()) return static_cast<void>(session.release());
  if (!session->isIoThread()) return session.reset();

  // The thread cannot wait for itself. It takes the session over and frees it when the loop has ended.
  VorlinSessionImpl& self = *session;
  self.ioThread_.detach();
  self.orphan_ = std::move(session);
  self.inbox_.push(std::move(self.drain_));
}

VorlinSessionImpl::~VorlinSessionImpl() {
  if (ioThread_.joinable()) {
    inbox_.push(std::move(drain_));
    ioThread_.join();
  }
  closeDown();
  runWhatIsLeft();
  callbacks_.clear();
  framer_.reset();
  transport_.reset();
}

/// Lets nobody in any more, closes the connection, answers everybody. Harmless when it has been done.
void VorlinSessionImpl::closeDown() noexcept {
  static_cast<void>(transport_->close());
  inbox_.close();
  claimDirectWrite();
  framer_->failAll(stoppedError(), true);
}

void VorlinSessionImpl::runIoThread() {
  ioThreadId_ = std::this_thread::get_id();
  const IoThreadMark mark;
  runEventLoop();
  closeDown();
  runWhatIsLeft();
  const std::unique_ptr<VorlinSessionImpl> freedHere = std::move(orphan_);
}

void VorlinSessionImpl::runEventLoop() {
  try {
    context_.run();
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "io_context run exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "io_context run exception: unknown");
  }
}

/// Handlers that were told to end do so, before what they use is freed.
void VorlinSessionImpl::runWhatIsLeft() noexcept {
  for (;;) {
    try {
      context_.restart();
      context_.poll();
      return;
    } catch (...) { // NOLINT: a handler that throws ends here; the others get their turn
    }
  }
}

} // namespace vorlinkit
