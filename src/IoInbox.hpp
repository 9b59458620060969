#pragma once

#include "Asio.hpp"

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace vorlinkit {

/// A piece of work for the I/O thread. One that is dropped without having run must tell whoever waits.
class IoJob {
public:
  IoJob() = default;
  IoJob(const IoJob&) = delete;
  IoJob& operator=(const IoJob&) = delete;
  virtual ~IoJob() = default;
  virtual void run() = 0;
};

/// The one way from user threads to the I/O thread: jobs run there in the order in which they came. The
/// event loop is woken once per batch, not once per job. After `close` no job gets in any more, so that
/// nothing can be left waiting for a thread that is gone.
class IoInbox {
public:
  explicit IoInbox(asio::any_io_executor executor) : executor_(std::move(executor)) {}

  /// Any thread. False if the inbox is closed; the job is then dropped.
  bool push(std::unique_ptr<IoJob> job) {
    bool first = false;
    {
      const std::lock_guard guard(lock_);
      if (closed_) return false;
      first = jobs_.empty();
      jobs_.push_back(std::move(job));
    }
    // Not under the lock: the I/O thread may be running before this call returns.
    if (first) asio::post(executor_, [this] { runAll(); });
    return true;
  }

  /// Drops what has not run yet.
  void close() {
    std::vector<std::unique_ptr<IoJob>> dropped;
    const std::lock_guard guard(lock_);
    closed_ = true;
    dropped.swap(jobs_);
  }

private:
  void runAll() {
    {
      const std::lock_guard guard(lock_);
      jobs_.swap(running_); // both keep their memory
    }
    for (auto& job : running_)
      job->run();
    running_.clear();
  }

  asio::any_io_executor executor_;
  std::mutex lock_;
  std::vector<std::unique_ptr<IoJob>> jobs_;
  std::vector<std::unique_ptr<IoJob>> running_; // I/O thread only
  bool closed_ = false;
};

} // namespace vorlinkit
