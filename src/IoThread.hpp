#pragma once

#include <utility>

namespace vorlinkit {

/// Marks the thread that it lives on as the I/O thread of some session: there nobody waits for a session to close,
/// since two that wait for each other would do so for ever.
class IoThreadMark {
public:
  IoThreadMark() noexcept : before_(std::exchange(here(), true)) {}
  ~IoThreadMark() { here() = before_; }
  IoThreadMark(const IoThreadMark&) = delete;
  IoThreadMark& operator=(const IoThreadMark&) = delete;

  static bool isHere() noexcept { return here(); }

private:
  static bool& here() noexcept {
    thread_local bool isIoThread = false;
    return isIoThread;
  }

  const bool before_;
};

} // namespace vorlinkit
