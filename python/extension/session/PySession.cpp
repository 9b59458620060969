#include "session/PySession.hpp"

#include "interpreter/CoreText.hpp"
#include "interpreter/SessionLifetime.hpp"
#include "session/CallsOfSession.hpp"

#include <span>
#include <stdexcept>
#include <string_view>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

py::bytes bytesOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

py::tuple connectFailed(std::string_view text) { return py::make_tuple(false, decodeCoreText(text)); }
py::tuple sendFailed(std::string_view text) { return py::make_tuple(py::none(), decodeCoreText(text)); }

} // namespace

PySession::PySession(const SessionConfig& config, std::shared_ptr<IVorlinLogger> logger)
    : generation_(FinalisationGate::instance().generation()) {
  if (FinalisationGate::instance().closed()) throw std::runtime_error("The interpreter is exiting");
  core_ = std::make_unique<VorlinSession>(config, std::move(logger));
  core_->set_chunk_hooks(&InterpreterLock::beginChunk, &InterpreterLock::endChunk);
  SessionLifetime::add(core_);
}

PySession::~PySession() { endCore(); }

void PySession::endCore() noexcept {
  SessionLifetime::remove(core_);
  auto core = std::move(core_);
  if (!core) return;
  const InterpreterRelease unlocked;
  core.reset();
}

VorlinSession* PySession::usableCore() const noexcept {
  return !closed_ && generation_ == FinalisationGate::instance().generation() ? core_.get() : nullptr;
}

py::tuple PySession::connect() {
  auto* const core = usableCore();
  if (!core) return connectFailed(notAwaitable);
  if (core->is_io_thread()) return connectFailed(fromCallback("connect"));
  const Inside here(*this);
  const auto result = awaitOutcome([core] { return core->connect(); });
  if (!result) return connectFailed(notAwaitable);
  if (!*result) return connectFailed(result->error().message);
  return py::make_tuple(true, "");
}

void PySession::disconnect() {
  auto* const core = usableCore();
  if (!core) return;
  const Inside here(*this);
  InterpreterRelease unlocked;
  if (unlocked) unlocked.wait(core->start_disconnect());
}

bool PySession::isConnected() const noexcept {
  const auto* const core = usableCore();
  return core && core->is_connected();
}

std::uint8_t PySession::clientId() const noexcept {
  const auto* const core = usableCore();
  return core ? core->client_id() : std::uint8_t{0};
}

py::tuple PySession::send(std::uint16_t commandId, const std::optional<py::bytes>& payload) {
  auto* const core = usableCore();
  if (!core) return sendFailed(notAwaitable);
  if (core->is_io_thread()) return sendFailed(fromCallback("send"));
  // The bytes object cannot change and is held by the caller; the core copies it before it returns.
  const auto view = payload ? viewOf(*payload) : std::span<const std::byte>{};
  const Inside here(*this);
  const auto result = awaitOutcome([&] { return core->send(commandId, view); });
  if (!result) return sendFailed(notAwaitable);
  if (!*result) return sendFailed(result->error().message);
  return py::make_tuple(bytesOf((*result)->payload), "");
}

/// Returns when notifications reach the callable, also when another thread has begun to register the slot. The core is
/// told without the interpreter lock: the I/O thread may hold the core's lock while it waits for the interpreter.
template <typename Register>
void PySession::keep(Slot& slot, const char* name, const py::function& callback, Register&& registerInCore) {
  if (slot.callback)
    slot.callback->replace(callback);
  else
    slot.callback = std::make_shared<PythonCallback>(name, callback);
  auto* const core = usableCore();
  if (!core || slot.inCore) return;
  {
    const Inside here(*this);
    const auto kept = slot.callback;
    const InterpreterRelease unlocked;
    if (!unlocked) return;
    registerInCore(*core, kept);
  }
  slot.inCore = true;
}

void PySession::onConnectionStateChanged(const py::function& callback) {
  keep(stateSlot_, "on_connection_state_changed", callback, [](VorlinSession& core, const auto& kept) {
    core.on_connection_state_changed([kept](bool connected, const std::string& reason) {
      kept->call([&] { return std::array<py::object, 2>{py::bool_(connected), decodeCoreText(reason)}; });
    });
  });
}

void PySession::onNotification(std::uint16_t commandId, const py::function& callback) {
  keep(notificationSlots_[commandId], "on_notification", callback, [=](VorlinSession& core, const auto& kept) {
    core.on_notification(commandId, [kept](const RawMessage& message) {
      kept->call([&] { return std::array<py::object, 1>{bytesOf(message.payload)}; });
    });
  });
}

void PySession::onFrame(const py::function& callback) {
  keep(frameSlot_, "on_frame", callback, [](VorlinSession& core, const auto& kept) {
    core.on_frame([kept](FrameDirection direction, std::span<const std::byte> frame) {
      kept->call([&] { return std::array<py::object, 2>{FrameDirections::of(direction), bytesOf(frame)}; });
    });
  });
}

// A slot is empty when there was no memory for its first callable.

int PySession::visitCallbacks(visitproc visit, void* context) const {
  const auto visitSlot = [&](const Slot& slot) { return slot.callback ? slot.callback->visit(visit, context) : 0; };
  if (const int stop = visitSlot(stateSlot_)) return stop;
  if (const int stop = visitSlot(frameSlot_)) return stop;
  for (const auto& [commandId, slot] : notificationSlots_)
    if (const int stop = visitSlot(slot)) return stop;
  return 0;
}

void PySession::clearCallbacks() {
  // Slots stay, and releasing a callable may run Python code that comes back here.
  const auto clear = [](const Slot& slot) {
    if (const auto callback = slot.callback) callback->clear();
  };
  clear(stateSlot_);
  clear(frameSlot_);
  for (const auto& [commandId, slot] : notificationSlots_)
    clear(slot);
}

} // namespace vorlinkit::python
