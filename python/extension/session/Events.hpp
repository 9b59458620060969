// What a session has to tell a queue.
#pragma once

#include "session/EventQueue.hpp"

#include <vorlinkit/IVorlinLogger.hpp>
#include <vorlinkit/VorlinSession.hpp>

#include <pybind11/pybind11.h>

#include <atomic>
#include <cstdint>
#include <expected>
#include <memory>
#include <string>

namespace vorlinkit::python {

/// How a request ended, as Python sees it: code, text, payload, majorError, minorError. Interpreter lock held.
pybind11::tuple outcomeTuple(const std::expected<RawMessage, Error>& outcome);

/// Notifications of one command that came in a row, as Python sees them. Interpreter lock held.
pybind11::tuple notificationsTuple(std::uint16_t commandId, const pybind11::list& payloads);

class State final : public Event {
public:
  State() = default;
  void set(std::uint64_t connection, const std::string& reason) noexcept;
  void passTo(const pybind11::list& list) override;

private:
  std::uint64_t connection_ = 0;
  std::string reason_;
};

/// Where the events of one session go. Shared by the session, the core's handlers and the replies that are on their
/// way.
class Outlet {
public:
  explicit Outlet(std::shared_ptr<EventQueue> queue) : queue_(std::move(queue)), spare_(std::make_unique<State>()) {}

  EventQueue& queue() const noexcept { return *queue_; }
  // I/O thread
  /// Arrives also when memory has just run out.
  void tellState(std::uint64_t connection, const std::string& reason) noexcept;

  /// What fails from now on, fails because the session is closed. Any thread.
  void close() noexcept { closed_ = true; }
  bool closed() const noexcept { return closed_; }

private:
  const std::shared_ptr<EventQueue> queue_;
  std::unique_ptr<State> spare_;
  std::atomic<bool> closed_{false};
};

/// The answer to whoever gave `token`. Made before it is needed, so that it arrives also when memory runs out. Owns a
/// reference to the token, which any thread may drop.
class Reply final : public Event {
public:
  /// Interpreter lock held.
  Reply(std::shared_ptr<Outlet> outlet, const pybind11::object& token)
      : outlet_(std::move(outlet)), token_(pybind11::object(token).release().ptr()) {}
  ~Reply() override;

  /// Any thread.
  static void deliver(std::unique_ptr<Reply> reply, std::expected<RawMessage, Error> outcome) noexcept;
  void passTo(const pybind11::list& list) override;

private:
  std::shared_ptr<Outlet> outlet_;
  PyObject* const token_;
  std::expected<RawMessage, Error> outcome_;
};

/// A logger that queues its records.
class EventLogger final : public IVorlinLogger {
public:
  explicit EventLogger(std::shared_ptr<EventQueue> queue) : queue_(std::move(queue)) {}
  void log(LogLevel level, const std::source_location& location, std::thread::id thread,
           std::chrono::system_clock::time_point time, std::string_view format, format_args args) override;

private:
  const std::shared_ptr<EventQueue> queue_;
};

} // namespace vorlinkit::python
