#include "session/Events.hpp"

#include "interpreter/CoreText.hpp"
#include "interpreter/InterpreterLock.hpp"
#include "session/PyVorlinLogger.hpp"

#include <new>
#include <utility>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

// The first member of an event.
enum class Kind : std::uint8_t { Reply, State, Notification, Log };

int number(Kind kind) { return static_cast<int>(kind); }

py::bytes bytesOf(const RawMessage& message) {
  return {reinterpret_cast<const char*>(message.payload.data()), message.payload.size()};
}

void append(const py::list& list, const py::tuple& event) {
  if (PyList_Append(list.ptr(), event.ptr()) != 0) throw py::error_already_set();
}

class LogRecord final : public Event {
public:
  LogRecord(LogLevel level, const std::source_location& location, std::chrono::system_clock::time_point time,
            std::string text)
      : level_(level), location_(location), time_(time), text_(std::move(text)) {}
  void passTo(const py::list& list) override {
    const std::chrono::duration<double> since1970 = time_.time_since_epoch();
    append(list, py::make_tuple(number(Kind::Log), static_cast<int>(level_), decodeCoreText(location_.file_name()),
                                location_.line(), decodeCoreText(location_.function_name()), decodeCoreText(text_),
                                since1970.count()));
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

py::tuple notificationsTuple(std::uint16_t commandId, const py::list& payloads) {
  return py::make_tuple(number(Kind::Notification), commandId, payloads);
}

// NOLINTNEXTLINE(bugprone-exception-escape): the short text needs no memory
void State::set(std::uint64_t connection, const std::string& reason) noexcept {
  connection_ = connection;
  try {
    reason_ = reason;
  } catch (const std::bad_alloc&) {
    reason_ = "Out of memory";
  }
}

void State::passTo(const py::list& list) {
  append(list, py::make_tuple(number(Kind::State), connection_, decodeCoreText(reason_)));
}

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

Reply::~Reply() { releaseAnywhere(token_); }

void Reply::deliver(std::unique_ptr<Reply> reply, std::expected<RawMessage, Error> outcome) noexcept {
  reply->outcome_ = std::move(outcome);
  const auto outlet = std::move(reply->outlet_);
  if (!reply->outcome_ && outlet->closed()) reply->outcome_.error().code = ErrorCode::Stopped;
  outlet->queue().push(std::move(reply));
}

void Reply::passTo(const py::list& list) {
  const auto token = py::reinterpret_borrow<py::object>(token_);
  append(list, py::make_tuple(number(Kind::Reply), token, outcomeTuple(outcome_)));
}

void EventLogger::log(LogLevel level, const std::source_location& location, std::thread::id /*thread*/,
                      std::chrono::system_clock::time_point time, std::string_view format, format_args args) {
  queue_->pushLog(std::make_unique<LogRecord>(level, location, time, formattedRecord(format, args)));
}

} // namespace vorlinkit::python
