// The wiring: user calls to the I/O thread, received bytes and state changes to framer and observers.
#include "VorlinSessionImpl.hpp"

#include "CompletionAnswer.hpp"
#include "Log.hpp"
#include "Platform.hpp"

#include <vorlinkit/VorlinCodec.hpp>

#include <chrono>
#include <utility>
#include <vector>

namespace vorlinkit {

namespace {

constexpr int oneThread = 1; // lets asio leave out what only several threads need
constexpr int timersOfASession = 4;

/// Lets the event loop's list of timers grow to all it will ever hold, so that to start one takes no memory later.
void makeRoomForTimers(asio::io_context& context) {
  std::vector<asio::steady_timer> timers;
  for (int i = 0; i < timersOfASession; ++i)
    timers.emplace_back(context, std::chrono::hours(1)).async_wait([](std::error_code) {});
}

} // namespace

class VorlinSessionImpl::ConnectJob final : public IoJob {
public:
  explicit ConnectJob(TcpTransport& transport) : transport_(transport) {}
  ConnectJob(TcpTransport& transport, ConnectCompletion completion, const std::shared_ptr<IVorlinLogger>& logger)
      : transport_(transport), caller_(std::in_place_type<CompletionAnswer<void>>, std::move(completion), logger) {}
  std::future<std::expected<void, Error>> future() { return std::get<Answer<void>>(caller_).future(); }
  void run() noexcept override { transport_.connect(std::move(caller_)); }

private:
  TcpTransport& transport_;
  ConnectAnswer caller_;
};

class VorlinSessionImpl::CloseJob final : public IoJob {
public:
  /// `closed` is called once, also when the job is dropped.
  CloseJob(TcpTransport& transport, DisconnectCompletion closed, const std::shared_ptr<IVorlinLogger>& logger)
      : transport_(transport), closed_(std::move(closed)), logger_(logger) {}
  ~CloseJob() override { callCompletion(logger_, closed_); }
  void run() noexcept override { static_cast<void>(transport_.close()); }

private:
  TcpTransport& transport_;
  const DisconnectCompletion closed_;
  const std::shared_ptr<IVorlinLogger>& logger_;
};

class VorlinSessionImpl::ForgetJob final : public IoJob {
public:
  explicit ForgetJob(CallbackSlots& callbacks) : callbacks_(callbacks) {}
  void run() noexcept override { callbacks_.forgetReplacedHandlers(); }

private:
  CallbackSlots& callbacks_;
};

VorlinSessionImpl::VorlinSessionImpl(SessionConfig config, std::shared_ptr<IVorlinLogger> logger)
    : config_(std::move(config)), logger_(std::move(logger)), codec_(std::make_shared<const VorlinCodec>()),
      context_(oneThread), workGuard_(asio::make_work_guard(context_)),
      transport_(std::make_unique<TcpTransport>(context_, config_, logger_)),
      framer_(
          std::make_unique<MessageFramer>(config_.request_attempts, codec_, *transport_, framerCallbacks(), logger_)),
      inbox_(
          context_, [this] { claimDirectWrite(); }, [this] { openDirectWrite(); }),
      processGeneration_(platform::processGeneration()), drain_(makeDrainJob()) {
  wireTransport();
  makeRoomForTimers(context_);
  ioThread_ = platform::startThread([this] { runIoThread(); });
  ioThreadId_ = ioThread_.get_id();
}

void VorlinSessionImpl::wireTransport() {
  transport_->setOnConnectionStateChanged(
      [this](bool connected, const std::string& reason) { onStateChanged(connected, reason); });
  transport_->setOnCallerWrote([this](WrittenRequest written) {
    directWriteClaimed_ = true;
    takeOver(std::move(written));
  });
  transport_->setOnBytes(
      [this](std::expected<std::span<const std::byte>, Error> received) { onTransportBytes(std::move(received)); });
}

MessageFramer::Callbacks VorlinSessionImpl::framerCallbacks() {
  return {
      .slots = callbacks_,
      .clientId = [this] { return clientId(); },
      .setClientId = [this](std::uint8_t id) { clientId_.store(id, std::memory_order_relaxed); },
      .claimDirectWrite = [this] { claimDirectWrite(); },
      .openDirectWrite = [this] { openDirectWrite(); },
  };
}

std::future<std::expected<void, Error>> VorlinSessionImpl::connect() {
  if (inherited()) return readyWith<void>(notConnectedError());
  auto job = std::make_unique<ConnectJob>(*transport_);
  auto result = job->future();
  inbox_.push(std::move(job));
  return result;
}

void VorlinSessionImpl::connect(ConnectCompletion completion) {
  if (inherited()) return callCompletion(logger_, completion, std::unexpected(notConnectedError()));
  inbox_.push(std::make_unique<ConnectJob>(*transport_, std::move(completion), logger_));
}

std::future<void> VorlinSessionImpl::startDisconnect() {
  const auto closed = std::make_shared<std::promise<void>>();
  startDisconnect([closed] { closed->set_value(); });
  return closed->get_future();
}

void VorlinSessionImpl::startDisconnect(DisconnectCompletion completion) {
  if (inherited()) return callCompletion(logger_, completion);
  inbox_.push(std::make_unique<CloseJob>(*transport_, std::move(completion), logger_));
}

// An inherited session's locks may be held for ever by a thread that is not there.

void VorlinSessionImpl::onNotification(std::uint16_t commandId, NotificationHandler handler) {
  if (inherited()) return;
  auto forget = std::make_unique<ForgetJob>(callbacks_); // first, so that a call that fails has changed nothing
  callbacks_.setNotificationHandler(commandId, std::move(handler));
  // What was replaced may still be at hand on the I/O thread, and is let go of there.
  inbox_.push(std::move(forget));
}

void VorlinSessionImpl::onFrame(FrameObserver observer) {
  if (!inherited()) callbacks_.setFrameObserver(std::move(observer));
}

void VorlinSessionImpl::onConnectionStateChanged(StateObserver observer) {
  if (!inherited()) callbacks_.setStateObserver(std::move(observer));
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
  callHook(beforeChunk_);
  try {
    framer_->onBytes(chunk);
  } catch (const std::exception& exception) { // only memory can run out; the stream cannot be followed any more
    log(logger_, LogLevel::err, "on_bytes callback exception: {}", exception.what());
    transport_->fail(asio::error::no_memory);
  }
  openDirectWrite();
  callHook(afterChunk_);
}

void VorlinSessionImpl::callHook(const std::function<void()>& hook) noexcept {
  if (!hook) return;
  try {
    hook();
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "chunk hook exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "chunk hook exception: unknown");
  }
}

void VorlinSessionImpl::onConnectionLost(const Error& error) {
  clientId_.store(0, std::memory_order_relaxed);
  claimDirectWrite();
  framer_->failAll(error, false);
  // Half a frame of the old connection must not meet the bytes of the next.
  framer_->resetReceiveState();
  log(logger_, LogLevel::warn, "Connection lost, session state reset (clientId=0, pending requests failed)");
}

void VorlinSessionImpl::onStateChanged(bool connected, const std::string& reason) {
  if (connected) openDirectWrite();
  try {
    callbacks_.reportState(connected, reason);
  } catch (const std::exception& exception) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: {}", exception.what());
  } catch (...) {
    log(logger_, LogLevel::err, "on_connection_state_changed callback exception: unknown");
  }
}

} // namespace vorlinkit
