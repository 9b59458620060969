#include "session/PyEventQueue.hpp"

#include "interpreter/InterpreterLock.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <future>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

using TimePoint = EventQueue::TimePoint;

TimePoint endOf(std::optional<double> timeout) {
  if (!timeout) return TimePoint::max();
  if (std::isnan(*timeout)) throw py::value_error("timeout: not a number");
  using Seconds = std::chrono::duration<double>;
  constexpr Seconds longest = std::chrono::hours(24 * 365 * 10);
  const Seconds wait = std::clamp(Seconds(*timeout), Seconds::zero(), longest);
  return std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(wait);
}

/// The arrival of an event, in the form in which InterpreterRelease waits.
class Arrival {
public:
  Arrival(EventQueue& queue, TimePoint until) : queue_(queue), until_(until) {}
  void wait() const { queue_.awaitEvent(until_); }
  std::future_status wait_for(std::chrono::milliseconds slice) const { // NOLINT(readability-identifier-naming)
    const auto until = std::min(until_, std::chrono::steady_clock::now() + slice);
    return queue_.awaitEvent(until) || until == until_ ? std::future_status::ready : std::future_status::timeout;
  }

private:
  EventQueue& queue_;
  const TimePoint until_;
};

/// What could not be passed on goes back to the queue.
class Taking {
public:
  explicit Taking(EventQueue& queue) : queue_(queue), events_(queue.take()) {}
  ~Taking() {
    if (events_.first()) queue_.putBack(std::move(events_));
  }
  Taking(const Taking&) = delete;
  Taking& operator=(const Taking&) = delete;

  void passTo(const py::list& list) {
    while (Event* const event = events_.first()) {
      event->passTo(list);
      events_.pop();
    }
  }

private:
  EventQueue& queue_;
  TakenEvents events_;
};

} // namespace

PyEventQueue::PyEventQueue()
    : queue_(std::make_shared<EventQueue>()), generation_(FinalisationGate::instance().generation()) {
  SessionLifetime::add(queue_);
}

py::list PyEventQueue::take() {
  py::list list;
  if (!usable()) return list;
  Taking taking(*queue_);
  try {
    taking.passTo(list);
  } catch (const std::exception&) { // only memory can run out in here
    if (list.empty()) throw;
    PyErr_Clear(); // the rest comes next time
  }
  return list;
}

py::list PyEventQueue::wait(std::optional<double> timeout) {
  const auto until = endOf(timeout);
  if (!usable()) return py::list();
  if (InterpreterRelease unlocked; unlocked) unlocked.wait(Arrival(*queue_, until));
  return take();
}

void PyEventQueue::wake() {
  if (usable()) queue_->wake();
}

int PyEventQueue::fileno() { return queue_->descriptor(); }

std::uint64_t PyEventQueue::dropped() const { return usable() ? queue_->dropped() : 0; }

} // namespace vorlinkit::python
