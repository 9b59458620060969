#pragma once

#include "Asio.hpp"
#include "HandlerMemory.hpp"
#include "LinkedList.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace vorlinkit {

/// A piece of work for the I/O thread. One that is dropped without having run must tell whoever waits.
class IoJob : public LinkedListItem<IoJob> {
public:
  IoJob() = default;
  IoJob(const IoJob&) = delete;
  IoJob& operator=(const IoJob&) = delete;
  virtual ~IoJob() = default;
  virtual void run() noexcept = 0;
};

/// The way from user threads to the I/O thread: jobs run there in the order in which they came. The event loop is
/// woken once per batch, not once per job. After `close` no job gets in any more, so that nothing can be left
/// waiting for a thread that is gone. Owned by the session.
class IoInbox {
public:
  /// `before` and `after` run on the I/O thread around every batch.
  IoInbox(asio::io_context& context, std::function<void()> before, std::function<void()> after)
      : executor_(context.get_executor()), before_(std::move(before)), after_(std::move(after)) {}

  /// Any thread. False if the inbox is closed; the job is then dropped.
  bool push(std::unique_ptr<IoJob> job) {
    {
      const std::lock_guard guard(lock_);
      if (closed_) return false;
      jobs_.push(std::move(job));
      if (std::exchange(wakeIsPending_, true)) return true;
    }
    postWake();
    return true;
  }

  /// Any thread: runs a batch soon, also an empty one.
  void wake() {
    {
      const std::lock_guard guard(lock_);
      if (closed_ || std::exchange(wakeIsPending_, true)) return;
    }
    postWake();
  }

  /// Any thread: whether the I/O thread has taken everything that came before this call.
  bool empty() {
    const std::lock_guard guard(lock_);
    return jobs_.empty();
  }

  /// Drops what has not run yet.
  void close() {
    LinkedList<IoJob> dropped; // outlives the lock, as whoever waits is told
    const std::lock_guard guard(lock_);
    closed_ = true;
    jobs_.swap(dropped);
  }

private:
  /// Not under the lock: the I/O thread may be running before this call returns. There is one at a time, so its memory
  /// is free.
  void postWake() {
    asio::post(executor_, HandlerIn(wakeMemory_, [this] { runAll(); }));
  }

  void runAll() {
    before_(); // while the jobs still show, so that no request of their callers overtakes them
    LinkedList<IoJob> running;
    {
      const std::lock_guard guard(lock_);
      wakeIsPending_ = false;
      running.swap(jobs_);
    }
    while (!running.empty())
      running.pop()->run();
    after_();
  }

  asio::io_context::executor_type executor_;
  std::function<void()> before_;
  std::function<void()> after_;
  HandlerMemory wakeMemory_;
  std::mutex lock_;
  LinkedList<IoJob> jobs_;
  bool wakeIsPending_ = false;
  bool closed_ = false;
};

} // namespace vorlinkit
