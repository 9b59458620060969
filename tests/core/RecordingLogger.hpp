#pragma once

#include <vorlinkit/IVorlinLogger.hpp>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vorlinkit::test {

/// Keeps every record as "level file text".
class RecordingLogger final : public IVorlinLogger {
public:
  explicit RecordingLogger(LogLevel threshold = LogLevel::trace) { set_log_level(threshold); }

  void log(LogLevel level, const std::source_location& location, std::thread::id, std::chrono::system_clock::time_point,
           std::string_view format, format_args args) override {
    const std::string record = formatting::format("{} {} {}", static_cast<int>(level), location.file_name(),
                                                  formatting::vformat(format, args));
    const std::lock_guard guard(lock_);
    records_.push_back(record);
    changed_.notify_all();
  }

  std::vector<std::string> records() const {
    const std::lock_guard guard(lock_);
    return records_;
  }
  long count(std::string_view part) const {
    const std::lock_guard guard(lock_);
    return counted(part);
  }
  /// Until as many records that hold `part` are there; false after ten seconds.
  bool await(std::string_view part, long times) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(10), [&] { return counted(part) >= times; });
  }

private:
  long counted(std::string_view part) const {
    return std::ranges::count_if(records_, [&](const auto& record) { return record.contains(part); });
  }

  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::vector<std::string> records_;
};

} // namespace vorlinkit::test
