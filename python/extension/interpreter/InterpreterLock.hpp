// The one place of the module that takes and gives back the interpreter lock.
#pragma once

#include "interpreter/FinalisationGate.hpp"

#include <Python.h>

#include <chrono>
#include <future>
#include <optional>

namespace vorlinkit::python {

/// Whether the calling thread holds the interpreter lock.
bool interpreterLockHeld() noexcept;

/// Lets go of an object on any thread. Takes the lock for it; an interpreter on its way out keeps the object.
void releaseAnywhere(PyObject* object) noexcept;

/// Holds the interpreter lock for a scope, on any thread. False when Python must not be called any more,
/// since the interpreter is on its way out. An I/O thread that is inside a received chunk keeps the lock
/// to the end of that chunk, so that a burst of frames costs one acquisition.
class InterpreterLock {
public:
  InterpreterLock() noexcept;
  ~InterpreterLock();
  InterpreterLock(const InterpreterLock&) = delete;
  InterpreterLock& operator=(const InterpreterLock&) = delete;

  explicit operator bool() const noexcept { return usable_; }

  /// Called by the session on its I/O thread around each received chunk.
  static void beginChunk() noexcept;
  static void endChunk() noexcept;

private:
  bool usable_ = false;
  std::optional<FinalisationGate::Pass> pass_; // set when the destructor gives the lock back
};

/// Gives the interpreter lock up for a scope inside a bound call, so that other threads and the callbacks
/// run while the core works. False, with the lock still held, when the interpreter is on its way out: the
/// core must then not be called.
class InterpreterRelease {
public:
  InterpreterRelease() noexcept;
  /// For the exit step, which gives the lock up after it has closed the gate for everyone else.
  struct AtExit {};
  explicit InterpreterRelease(AtExit) noexcept;
  ~InterpreterRelease();
  InterpreterRelease(const InterpreterRelease&) = delete;
  InterpreterRelease& operator=(const InterpreterRelease&) = delete;

  explicit operator bool() const noexcept { return pass_.has_value(); }

  /// Waits until a future of the core is ready. Python's main thread, which alone runs signal handlers, waits in
  /// slices: Ctrl-C ends the wait with the exception that the handler raises. False when the result will not
  /// come: the interpreter is exiting, or this is the child of a fork. All other threads just wait, since the
  /// exit step has every future answered.
  template <typename Future> bool wait(const Future& future) {
    if (!hearsSignals_) {
      future.wait();
      return true;
    }
    while (future.wait_for(slice) != std::future_status::ready)
      if (!keepWaiting()) return false;
    return true;
  }

private:
  static constexpr std::chrono::milliseconds slice{50};
  bool keepWaiting();

  const bool hearsSignals_;
  std::optional<FinalisationGate::Pass> pass_;
  PyThreadState* saved_ = nullptr;
};

} // namespace vorlinkit::python
