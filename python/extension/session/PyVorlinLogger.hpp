#pragma once

#include "session/BoundTypes.hpp"
#include "session/EnumMembers.hpp"

#include <vorlinkit/IVorlinLogger.hpp>

#include <pybind11/pybind11.h>

#include <string>

namespace vorlinkit::python {

using LogLevels = EnumMembers<LogLevel, 7>;

/// The text of a record; also when its arguments do not fit.
std::string formattedRecord(std::string_view format, format_args args);

/// The native half of a Python object that derives from IVorlinLogger: passes records on to its method
/// `log(level, file, line, message)`. The session shares this half only; once the Python object is gone,
/// or while its class has no such method, records are dropped.
class PyVorlinLogger : public IVorlinLogger {
public:
  /// On the thread that logs, mostly a session's I/O thread.
  void log(LogLevel level, const std::source_location& location, std::thread::id thread,
           std::chrono::system_clock::time_point time, std::string_view format, format_args args) override;

private:
  void callOverride(LogLevel level, const std::string& file, std::uint_least32_t line,
                    const std::string& message) const;
};

} // namespace vorlinkit::python
