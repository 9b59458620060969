// The log call of the library: tests the threshold, then hands over format, arguments and location.
#pragma once

#include <vorlinkit/IVorlinLogger.hpp>

#include <chrono>
#include <concepts>
#include <exception>
#include <memory>
#include <source_location>
#include <string_view>
#include <thread>

namespace vorlinkit {

/// A format string that remembers where it was written.
struct LogFormat {
  template <std::convertible_to<std::string_view> Text>
  LogFormat(const Text& text, std::source_location where = std::source_location::current())
      : format(text), location(where) {}

  std::string_view format;
  std::source_location location;
};

namespace detail {

template <typename... Args>
void callLogger(IVorlinLogger& logger, LogLevel level, const LogFormat& text, const Args&... args) {
  logger.log(level, text.location, std::this_thread::get_id(), std::chrono::system_clock::now(), text.format,
             formatting::make_format_args(args...));
}

/// A logger that throws is told so once, through the logger itself; if it throws again, nothing is left to do.
inline void reportLoggerException(IVorlinLogger& logger, const char* what) noexcept {
  try {
    if (logger.get_log_level() <= LogLevel::err)
      callLogger(logger, LogLevel::err, "logger callback exception: {}", what);
  } catch (...) { // NOLINT: the logger has refused its own failure
  }
}

} // namespace detail

template <typename... Args>
void log(const std::shared_ptr<IVorlinLogger>& logger, LogLevel level, const LogFormat& text, const Args&... args) {
  if (!logger || logger->get_log_level() > level) return;
  try {
    detail::callLogger(*logger, level, text, args...);
  } catch (const std::exception& exception) {
    detail::reportLoggerException(*logger, exception.what());
  } catch (...) {
    detail::reportLoggerException(*logger, "unknown");
  }
}

} // namespace vorlinkit
