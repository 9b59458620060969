#pragma once

#include "Asio.hpp"

#include <atomic>
#include <functional>
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
///
/// While everything is quiet the I/O thread may open a way past the inbox, which lets one caller do his
/// work himself. It is shut by whoever takes it, and while there are jobs, so that nobody is overtaken.
class IoInbox {
public:
  /// `before` and `after` run on the I/O thread around every batch.
  IoInbox(asio::any_io_executor executor, std::function<void()> before, std::function<void()> after)
      : executor_(std::move(executor)), before_(std::move(before)), after_(std::move(after)) {}

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
    if (first) wake();
    return true;
  }

  /// Any thread: runs a batch soon, also an empty one.
  void wake() {
    asio::post(executor_, [this] { runAll(); });
  }

  /// I/O thread.
  void openWayPast() {
    const std::lock_guard guard(lock_);
    wayPast_.store(!closed_ && jobs_.empty() && running_.empty(), std::memory_order_relaxed);
  }
  void shutWayPast() {
    const std::lock_guard guard(lock_);
    wayPast_.store(false, std::memory_order_relaxed);
  }
  /// Any thread: whether it is worth to prepare for takeWayPast().
  bool wayPastIsOpen() const noexcept { return wayPast_.load(std::memory_order_relaxed); }
  /// Any thread: true for one caller at most, until the way is opened again.
  bool takeWayPast() {
    const std::lock_guard guard(lock_);
    return jobs_.empty() && wayPast_.exchange(false, std::memory_order_relaxed);
  }

  /// Drops what has not run yet.
  void close() {
    std::vector<std::unique_ptr<IoJob>> dropped;
    const std::lock_guard guard(lock_);
    closed_ = true;
    wayPast_ = false;
    dropped.swap(jobs_);
  }

private:
  void runAll() {
    {
      const std::lock_guard guard(lock_);
      jobs_.swap(running_); // both keep their memory
      wayPast_ = false;
    }
    before_();
    for (auto& job : running_)
      job->run();
    running_.clear();
    after_();
  }

  asio::any_io_executor executor_;
  std::function<void()> before_;
  std::function<void()> after_;
  std::mutex lock_;
  std::vector<std::unique_ptr<IoJob>> jobs_;
  std::vector<std::unique_ptr<IoJob>> running_; // I/O thread only
  bool closed_ = false;
  std::atomic<bool> wayPast_{false}; // changed under the lock
};

} // namespace vorlinkit
