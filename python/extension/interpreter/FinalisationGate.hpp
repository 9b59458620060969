// The door between the interpreter and everything of the module that runs outside it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

namespace vorlinkit::python {

/// Counts the threads that are about to take the interpreter lock, hold it on an I/O thread, or have
/// given it up inside a bound call and will want it back. A thread that waits for the lock of a
/// finalising interpreter is ended by it in the middle of our frames, so the door is shut while the
/// interpreter still works, and finalisation goes on only when nobody is left behind it.
///
/// enter and leave are one atomic step each, from any thread, with or without the lock.
class FinalisationGate {
public:
  /// Proof of an entry. A process that forks is a new generation, in which the threads counted before
  /// do not exist; a pass of an earlier generation is not counted back.
  struct Pass {
    std::uint32_t generation;
  };

  /// The one gate of the process; it is never destroyed, since threads may outlive static objects.
  static FinalisationGate& instance();

  /// Nothing once the gate is closed; else a pass that must be given to leave().
  std::optional<Pass> enter() noexcept;
  void leave(Pass pass) noexcept;

  bool closed() const noexcept { return (state_.load(std::memory_order_acquire) & closedBit) != 0; }
  /// Counts the forks that led to this process.
  std::uint32_t generation() const noexcept { return generationOf(state_.load(std::memory_order_acquire)); }
  /// Whether the process is still the one in which the pass was given.
  bool current(Pass pass) const noexcept { return generation() == pass.generation; }

  /// Shuts the gate for ever. Called with the interpreter lock held.
  void close() noexcept { state_.fetch_or(closedBit); }
  /// After close(): waits, without the interpreter lock, until everyone has left; false if they have not.
  bool awaitEmpty(std::chrono::milliseconds limit);
  /// In the child of a fork: forgets the threads that only the parent has.
  void startGeneration() noexcept;

private:
  // One word: closed flag, generation, number of passes out.
  static constexpr std::uint64_t closedBit = std::uint64_t{1} << 63;
  static constexpr std::uint64_t countMask = 0xFFFF'FFFF;
  static constexpr std::uint32_t generationMask = 0x7FFF'FFFF;
  static std::uint32_t generationOf(std::uint64_t state) noexcept {
    return static_cast<std::uint32_t>(state >> 32) & generationMask;
  }

  std::atomic<std::uint64_t> state_{0};
  std::mutex emptyLock_; // used only once the gate is closed
  std::condition_variable empty_;
};

} // namespace vorlinkit::python
