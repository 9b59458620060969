// A session whose events go to a queue, for the typed client.
#include "session/CallsOfSession.hpp"
#include "session/PyEventQueue.hpp"
#include "session/PySession.hpp"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

using Outcome = std::expected<RawMessage, Error>;

constexpr std::string_view sessionClosed = "The session is closed";

SendOptions optionsOf(std::int64_t timeout, std::uint64_t connection) {
  return {std::chrono::milliseconds(timeout), connection};
}

} // namespace

/// The core is told without the interpreter lock, which the I/O thread may wait for with the core's lock in hand.
void PySession::attach(const PyEventQueue& queue) {
  auto* const core = usableCore();
  if (!core) return;
  outlet_ = std::make_shared<Outlet>(queue.queue());
  const Inside here(*this);
  const auto outlet = outlet_;
  if (const InterpreterRelease unlocked; unlocked)
    core->on_connection_state_changed([core, outlet](bool connected, const std::string& reason) {
      outlet->tellState(connected ? core->connection() : 0, reason);
    });
}

void PySession::watch(std::uint16_t commandId) {
  auto* const core = usableCore();
  if (!core) return;
  if (!outlet_) throw std::runtime_error("no queue is attached");
  const Inside here(*this);
  const auto outlet = outlet_;
  if (const InterpreterRelease unlocked; unlocked)
    core->on_notification(commandId,
                          [outlet](const RawMessage& message) { outlet->queue().pushNotification(message); });
}

py::tuple PySession::request(std::uint16_t commandId, const py::bytes& payload, std::int64_t timeout,
                             std::uint64_t connection) {
  const auto failed = [this](std::string_view text) {
    return outcomeTuple(std::unexpected(Error{ErrorCode::Stopped, std::string(closed_ ? sessionClosed : text)}));
  };
  auto* const core = usableCore();
  if (!core) return failed(notAwaitable);
  if (core->is_io_thread()) return failed(fromCallback("_request"));
  const Inside here(*this);
  auto result = awaitOutcome([&] { return core->send(commandId, viewOf(payload), optionsOf(timeout, connection)); });
  if (!result) return failed(notAwaitable);
  if (!*result && closed_) result->error().code = ErrorCode::Stopped;
  return outcomeTuple(*result);
}

/// `start(core, tell)` is called with the interpreter lock, as it waits for nothing; `tell(outcome)` is to be called
/// once, unless it throws.
template <typename Start> void PySession::startForReply(const py::object& token, Start&& start) {
  if (!outlet_) throw std::runtime_error("no queue is attached");
  auto reply = std::make_unique<Reply>(outlet_, token);
  auto* const core = usableCore();
  if (!core) {
    const std::string text(closed_ ? sessionClosed : notAwaitable);
    return Reply::deliver(std::move(reply), std::unexpected(Error{ErrorCode::Stopped, text}));
  }
  auto* const told = reply.get(); // small enough for a function that takes no memory
  start(*core, [told](Outcome outcome) { Reply::deliver(std::unique_ptr<Reply>(told), std::move(outcome)); });
  static_cast<void>(reply.release()); // NOLINT(bugprone-unused-return-value)
}

void PySession::sendForReply(std::uint16_t commandId, const py::bytes& payload, std::int64_t timeout,
                             std::uint64_t connection, const py::object& token) {
  startForReply(token, [&](VorlinSession& core, const auto& tell) {
    core.send(commandId, viewOf(payload), optionsOf(timeout, connection), tell);
  });
}

void PySession::startConnect(const py::object& token) {
  startForReply(token, [](VorlinSession& core, const auto& tell) {
    core.connect([tell](std::expected<void, Error> connected) {
      tell(connected ? Outcome() : Outcome(std::unexpected(std::move(connected.error()))));
    });
  });
}

void PySession::startDisconnect(const py::object& token) {
  startForReply(token,
                [](VorlinSession& core, const auto& tell) { core.start_disconnect([tell] { tell(Outcome()); }); });
}

/// Whoever is inside is answered, and the last one to leave ends the core.
void PySession::close() {
  auto* const core = usableCore();
  if (!core) return;
  closed_ = true;
  if (outlet_) outlet_->close();
  const Inside here(*this);
  InterpreterRelease unlocked;
  if (unlocked) unlocked.wait(core->start_disconnect());
}

} // namespace vorlinkit::python
