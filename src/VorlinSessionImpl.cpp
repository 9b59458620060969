// The wiring: user calls to the I/O thread, received bytes and state changes to framer and observers.
#include "VorlinSessionImpl.hpp"

#include "Log.hpp"
#include "Platform.hpp"

#include <vorlinkit/VorlinCodec.hpp>

#include <utility>

namespace vorlinkit {

namespace {

constexpr int oneThread = 1; // lets asio leave out what only several threads need

} // namespace

class VorlinSessionImpl::ConnectJob final : public IoJob {
public:
  explicit ConnectJob(VorlinSessionImpl& session) : session_(session) {}
  std::future<std::expected<void, Error>> future() { return answer_.future(); }
  void run() override {
    asio::co_spawn(
        session_.context_, session_.transport_->connect(),
        [answer = std::move(answer_)](std::exception_ptr failure, std::expected<void, Error> result) mutable {
          if (!failure) answer.give(std::move(result)); // otherwise dropped, which answers, too
        });
  }

private:
  VorlinSessionImpl& session_;
  Answer<void> answer_;
};

class VorlinSessionImpl::CloseJob final : public IoJob {
public:
  explicit CloseJob(VorlinSessionImpl& session) : session_(session) {}
  std::future<void> future() { return closed_.get_future(); }
  void run() override {
    asio::co_spawn(session_.context_, session_.transport_->close(),
                   [closed = std::move(closed_)](std::exception_ptr, std::expected<void, Error>) mutable {
                     closed.set_value(); // a promise that is dropped instead makes the future ready, too
                   });
  }

private:
  VorlinSessionImpl& session_;
  std::promise<void> closed_;
};

class VorlinSessionImpl::ForgetJob final : public IoJob {
public:
  explicit ForgetJob(CallbackSlots& callbacks) : callbacks_(callbacks) {}
  void run() override { callbacks_.forgetReplacedHandlers(); }

private:
  CallbackSlots& callbacks_;
};

VorlinSessionImpl::VorlinSessionImpl(SessionConfig config, std::shared_ptr<IVorlinLogger> logger)
    : config_(std::move(config)), logger_(std::move(logger)), codec_(std::make_shared<const VorlinCodec>()),
      context_(oneThread), workGuard_(asio::make_work_guard(context_)),
      transport_(std::make_unique<TcpTransport>(context_, config_, logger_)),
      framer_(std::make_unique<MessageFramer>(config_.request_timeout, config_.request_attempts, codec_, *transport_,
                                              framerCallbacks(), logger_)),
      inbox_(
          context_.get_executor(), [this] { submitBegun(); }, [this] { offerWayPast(); }),
      processGeneration_(platform::processGeneration()) {
  wireTransport();
  framer_->start();
  ioThread_ = platform::startThread([this] { runIoThread(); });
  ioThreadId_ = ioThread_.get_id();
}

void VorlinSessionImpl::wireTransport() {
  transport_->setOnConnectionStateChanged(
      [this](bool connected, const std::string& reason) { onStateChanged(connected, reason); });
  transport_->setOnBytes(
      [this](std::expected<std::span<const std::byte>, Error> received) { onTransportBytes(std::move(received)); });
}

MessageFramer::Callbacks VorlinSessionImpl::framerCallbacks() {
  return {
      .slots = callbacks_,
      .clientId = [this] { return clientId(); },
      .setClientId = [this](std::uint8_t id) { clientId_.store(id, std::memory_order_relaxed); },
      .submitBegun = [this] { submitBegun(); },
      .allAnswered = [this] { offerWayPast(); },
  };
}

std::future<std::expected<void, Error>> VorlinSessionImpl::connect() {
  if (inherited()) return readyWith<void>({ErrorCode::Transport, "Not connected"});
  auto job = std::make_unique<ConnectJob>(*this);
  auto result = job->future();
  inbox_.push(std::move(job));
  return result;
}

void VorlinSessionImpl::disconnect() { startDisconnect().wait(); }

std::future<void> VorlinSessionImpl::startDisconnect() {
  std::promise<void> ready;
  ready.set_value();
  if (inherited()) return ready.get_future();
  auto job = std::make_unique<CloseJob>(*this);
  auto closed = job->future();
  inbox_.push(std::move(job));
  // On an I/O thread the close may have to wait for this very call to return.
  return isAnyIoThread() ? ready.get_future() : std::move(closed);
}

bool VorlinSessionImpl::isConnected() const noexcept { return !inherited() && transport_->isConnected(); }

void VorlinSessionImpl::onNotification(std::uint16_t commandId, NotificationHandler handler) {
  callbacks_.setNotificationHandler(commandId, std::move(handler));
  // What was replaced may still be at hand on the I/O thread, and is let go of there.
  if (!inherited()) inbox_.push(std::make_unique<ForgetJob>(callbacks_));
}

void VorlinSessionImpl::setChunkHooks(std::function<void()> before, std::function<void()> after) {
  beforeChunk_ = std::move(before);
  afterChunk_ = std::move(after);
}

void VorlinSessionImpl::onTransportBytes(std::expected<std::span<const std::byte>, Error> received) {
  if (received) return onReceived(*received);
  if (received.error().code == ErrorCode::Transport) return onConnectionLost(received.error());
  log(logger_, LogLevel::err, "Transport error: {}", received.error().message);
}

void VorlinSessionImpl::onReceived(std::span<const std::byte> chunk) {
  struct AfterChunk {
    const std::function<void()>& hook;
    ~AfterChunk() {
      if (hook) hook();
    }
  } afterChunk{afterChunk_};
  if (beforeChunk_) beforeChunk_();
  submitBegun();
  framer_->onBytes(chunk);
}

void VorlinSessionImpl::onConnectionLost(const Error& error) {
  clientId_.store(0, std::memory_order_relaxed);
  submitBegun();
  framer_->failAll(error, false);
  // Half a frame of the old connection must not meet the bytes of the next.
  framer_->resetReceiveState();
  log(logger_, LogLevel::warn, "Connection lost, session state reset (clientId=0, pending requests failed)");
}

void VorlinSessionImpl::onStateChanged(bool connected, const std::string& reason) {
  if (connected) offerWayPast();
  try {
    callbacks_.reportState(connected, reason);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: unknown");
  }
}

} // namespace vorlinkit
