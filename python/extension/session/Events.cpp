#include "session/Events.hpp"

#include "interpreter/CoreText.hpp"
#include "interpreter/InterpreterLock.hpp"
#include "session/PyVorlinLogger.hpp"

#include <new>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

// The first member of an event.
enum class Kind : std::uint8_t { Reply, State, Notification, Log };

int number(Kind kind) { return static_cast<int>(kind); }

py::bytes bytesOf(const RawMessage& message) {
  return {reinterpret_cast<const char*>(message.payload.data()), message.payload.size()};
}

/// A notification whose bytes are too many to be copied.
class LargeNotification final : public Event {
public:
  explicit LargeNotification(const RawMessage& message) : message_(message) {}
  std::size_t notifications() const noexcept override { return 1; }
  py::tuple toPython() const override {
    py::list payloads(1);
    payloads[0] = bytesOf(message_);
    return py::make_tuple(number(Kind::Notification), message_.commandId, std::move(payloads));
  }

private:
  const RawMessage message_;
};

/// Small notifications of one command that came one after the other. One object for many of them, since with one
/// each, passing them to Python would take most of its time for memory.
class Notifications final : public Event {
public:
  static constexpr std::size_t small = 1024; // bytes
  static constexpr std::size_t most = 512;

  Notifications(std::uint16_t commandId, std::span<const std::byte> payload) : commandId_(commandId) {
    append(payload);
  }

  std::size_t notifications() const noexcept override { return ends_.size() - dropped_; }
  bool add(std::uint16_t commandId, std::span<const std::byte> payload) override {
    if (commandId != commandId_ || payload.size() > small || ends_.size() == most) return false;
    append(payload);
    return true;
  }
  bool dropOldest() noexcept override {
    if (notifications() == 1) return false;
    ++dropped_;
    return true;
  }
  py::tuple toPython() const override {
    py::list payloads(notifications());
    for (std::size_t at = dropped_; at < ends_.size(); ++at) {
      const std::size_t begin = at == 0 ? 0 : ends_[at - 1];
      payloads[at - dropped_] = py::bytes(reinterpret_cast<const char*>(bytes_.data()) + begin, ends_[at] - begin);
    }
    return py::make_tuple(number(Kind::Notification), commandId_, std::move(payloads));
  }

private:
  void append(std::span<const std::byte> payload) {
    if (ends_.size() == ends_.capacity()) ends_.reserve(2 * ends_.size() + 1); // so that the last line cannot fail
    bytes_.insert(bytes_.end(), payload.begin(), payload.end());
    ends_.push_back(bytes_.size());
  }

  const std::uint16_t commandId_;
  std::size_t dropped_ = 0;
  std::vector<std::byte> bytes_;
  std::vector<std::size_t> ends_; // of each payload in the bytes
};

class LogRecord final : public Event {
public:
  LogRecord(LogLevel level, const std::source_location& location, std::chrono::system_clock::time_point time,
            std::string text)
      : level_(level), location_(location), time_(time), text_(std::move(text)) {}
  py::tuple toPython() const override {
    const std::chrono::duration<double> since1970 = time_.time_since_epoch();
    return py::make_tuple(number(Kind::Log), static_cast<int>(level_), decodeCoreText(location_.file_name()),
                          location_.line(), decodeCoreText(location_.function_name()), decodeCoreText(text_),
                          since1970.count());
  }

private:
  const LogLevel level_;
  const std::source_location location_;
  const std::chrono::system_clock::time_point time_;
  const std::string text_;
};

} // namespace

py::tuple outcomeTuple(const std::expected<RawMessage, Error>& outcome) {
  if (outcome) return py::make_tuple(0, "", bytesOf(*outcome), outcome->majorError, outcome->minorError);
  const Error& error = outcome.error();
  return py::make_tuple(static_cast<int>(error.code), decodeCoreText(error.message), py::bytes(), error.majorError, 0);
}

void State::set(std::uint64_t connection, const std::string& reason) noexcept {
  connection_ = connection;
  try {
    reason_ = reason;
  } catch (const std::bad_alloc&) {
    reason_ = "Out of memory"; // short enough to need none
  }
}

py::tuple State::toPython() const { return py::make_tuple(number(Kind::State), connection_, decodeCoreText(reason_)); }

void Outlet::tellState(std::uint64_t connection, const std::string& reason) noexcept {
  std::unique_ptr<State> event = std::move(spare_);
  try {
    if (!event) event = std::make_unique<State>();
    spare_ = std::make_unique<State>();
  } catch (const std::bad_alloc&) {
    if (!event) return; // for the second time in a row
  }
  event->set(connection, reason);
  queue_->push(std::move(event));
}

void Outlet::tellNotification(const RawMessage& message) noexcept {
  try {
    if (queue_->addNotification(message.commandId, message.payload)) return;
    if (message.payload.size() > Notifications::small)
      queue_->pushDroppable(std::make_unique<LargeNotification>(message));
    else
      queue_->pushDroppable(std::make_unique<Notifications>(message.commandId, message.payload));
  } catch (const std::bad_alloc&) {
    queue_->noteDropped();
  }
}

Reply::~Reply() { releaseAnywhere(token_); }

void Reply::deliver(std::unique_ptr<Reply> reply, std::expected<RawMessage, Error> outcome) noexcept {
  reply->outcome_ = std::move(outcome);
  const auto outlet = std::move(reply->outlet_);
  if (!reply->outcome_ && outlet->closed()) reply->outcome_.error().code = ErrorCode::Stopped;
  outlet->queue().push(std::move(reply));
}

py::tuple Reply::toPython() const {
  return py::make_tuple(number(Kind::Reply), py::reinterpret_borrow<py::object>(token_), outcomeTuple(outcome_));
}

void EventLogger::log(LogLevel level, const std::source_location& location, std::thread::id /*thread*/,
                      std::chrono::system_clock::time_point time, std::string_view format, format_args args) {
  queue_->pushDroppable(std::make_unique<LogRecord>(level, location, time, formattedRecord(format, args)));
}

} // namespace vorlinkit::python
