// The life cycle: the I/O thread, its end, and the order in which things are taken apart.
#include "VorlinSessionImpl.hpp"

#include "Log.hpp"
#include "Platform.hpp"

#include <utility>

namespace vorlinkit {

namespace {

thread_local bool onIoThread = false;

} // namespace

bool VorlinSessionImpl::isAnyIoThread() noexcept { return onIoThread; }

bool VorlinSessionImpl::inherited() const noexcept { return platform::processGeneration() != processGeneration_; }

void VorlinSessionImpl::dispose(std::unique_ptr<VorlinSessionImpl> session) {
  // There is no thread to end here, and its locks may be held for ever: the memory goes with the process.
  if (session->inherited()) return static_cast<void>(session.release());
  if (!session->isIoThread()) return session.reset();

  // The thread cannot wait for itself. It takes the session over and frees it when the loop has ended.
  VorlinSessionImpl& self = *session;
  self.ioThread_.detach();
  self.orphan_ = std::move(session);
  asio::co_spawn(self.context_, self.closeDown(), [&self](std::exception_ptr) {
    self.workGuard_.reset();
    self.context_.stop();
  });
}

VorlinSessionImpl::~VorlinSessionImpl() {
  if (ioThread_.joinable()) {
    // Drain before stopping: what waits gets its answer while there is a loop to deliver it.
    class DrainJob final : public IoJob {
    public:
      explicit DrainJob(VorlinSessionImpl& session) : session_(session) {}
      std::future<std::expected<void, Error>> future() { return answer_.future(); }
      void run() override {
        asio::co_spawn(
            session_.context_, session_.closeDown(),
            [answer = std::move(answer_)](std::exception_ptr) mutable { answer.give(std::expected<void, Error>()); });
      }

    private:
      VorlinSessionImpl& session_;
      Answer<void> answer_;
    };
    try {
      auto job = std::make_unique<DrainJob>(*this);
      const auto drained = job->future();
      if (inbox_.push(std::move(job))) drained.wait();
    } catch (...) { // NOLINT: without memory for the orderly way, stopping has to do
    }
    workGuard_.reset();
    context_.stop();
    ioThread_.join();
  }
  failEverything();
  finishCoroutines();
  callbacks_.clear();
  framer_.reset();
  transport_.reset();
}

/// Closes the connection, answers everybody, and lets nobody in any more.
asio::awaitable<void> VorlinSessionImpl::closeDown() {
  co_await transport_->close();
  inbox_.close();
  submitBegun();
  framer_->failAll(stoppedError(), true);
}

void VorlinSessionImpl::runIoThread() {
  onIoThread = true;
  ioThreadId_ = std::this_thread::get_id();
  runEventLoop();
  failEverything();
  finishCoroutines();
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

/// For when the loop no longer runs, whatever ended it.
void VorlinSessionImpl::failEverything() noexcept {
  try {
    inbox_.close();
    transport_->abort();
    submitBegun();
    framer_->failAll(stoppedError(), true);
  } catch (...) { // NOLINT: out of memory; the answers that are left are given when their owners go
  }
}

/// Lets the coroutines that have been told to end do so, before what they use is freed.
void VorlinSessionImpl::finishCoroutines() noexcept {
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
