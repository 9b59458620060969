// The library's only way to report what it does: one object, supplied by the host application.
#pragma once

#include <vorlinkit/Format.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <source_location>
#include <string_view>
#include <thread>

namespace vorlinkit {

/// Importance of a log record, in ascending order.
enum class LogLevel : std::uint8_t { trace = 0, debug = 1, info = 2, warn = 3, err = 4, critical = 5, off = 6 };

/// Receives the log records of a session. Derive, override `log`, and give the session a shared pointer;
/// session, transport and framer each keep a copy of it.
class IVorlinLogger {
public:
  IVorlinLogger() = default;
  IVorlinLogger(const IVorlinLogger&) = delete;
  IVorlinLogger& operator=(const IVorlinLogger&) = delete;
  virtual ~IVorlinLogger() = default;

  /// Called for every record at or above the threshold, on the session's I/O thread. `format` and `args`
  /// are not formatted yet and are valid only during the call: format them with
  /// `vorlinkit::formatting::vformat(format, args)`. An exception is caught and reported as a record of
  /// its own. Do not wait on a session's future here: this thread is the one that completes it.
  virtual void log(LogLevel level, const std::source_location& location, std::thread::id thread,
                   std::chrono::system_clock::time_point time, std::string_view format, format_args args) = 0;

  /// Records below the threshold are not passed on; `off` silences everything. Any thread.
  void set_log_level(LogLevel level) noexcept { threshold_.store(level, std::memory_order_relaxed); }
  /// The threshold; `info` unless set otherwise. Any thread.
  LogLevel get_log_level() const noexcept { return threshold_.load(std::memory_order_relaxed); }

private:
  std::atomic<LogLevel> threshold_{LogLevel::info};
};

} // namespace vorlinkit
