// The last line of defence against an interpreter that ends threads.
#pragma once

#include <chrono>
#include <thread>

namespace vorlinkit::python {

/// Stands guard around a call into the interpreter that never throws. If the frame is unwound all the
/// same, the interpreter is ending this thread because it finalises; unwinding would go on into frames
/// that must not be left that way and take the whole process down. The thread is parked instead, without
/// the interpreter lock, until the process is gone.
class ParkOnUnwind {
public:
  ParkOnUnwind() = default;
  ParkOnUnwind(const ParkOnUnwind&) = delete;
  ParkOnUnwind& operator=(const ParkOnUnwind&) = delete;
  ~ParkOnUnwind() {
    while (!returned_)
      std::this_thread::sleep_for(std::chrono::hours(1));
  }

  void returned() noexcept { returned_ = true; }

private:
  bool returned_ = false;
};

} // namespace vorlinkit::python
