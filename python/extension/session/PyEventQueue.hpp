// What Python knows as _EventQueue.
#pragma once

#include "interpreter/FinalisationGate.hpp"
#include "session/BoundTypes.hpp"
#include "session/EventQueue.hpp"

#include <pybind11/pybind11.h>

#include <cstdint>
#include <memory>
#include <optional>

namespace vorlinkit::python {

/// The taking end of an EventQueue. Every method is called with the interpreter lock held; `wait` gives it up. In the
/// child of a fork nothing comes any more, as the queue's lock may be held for ever by a thread that is not there.
class PyEventQueue {
public:
  PyEventQueue();

  pybind11::list take();
  pybind11::list wait(std::optional<double> timeout);
  void wake();
  int fileno();
  std::uint64_t dropped() const;

  const std::shared_ptr<EventQueue>& queue() const noexcept { return queue_; }

private:
  bool usable() const noexcept { return generation_ == FinalisationGate::instance().generation(); }

  const std::shared_ptr<EventQueue> queue_;
  const std::uint32_t generation_; // of the process that made the queue
};

} // namespace vorlinkit::python
