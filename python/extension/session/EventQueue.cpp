#include "session/EventQueue.hpp"

#include <algorithm>
#include <cerrno>
#include <system_error>

#ifdef __linux__
#include <sys/eventfd.h>
#endif
#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>
#endif

namespace vorlinkit::python {

namespace {

// What event loops watch. Never blocks: a full pipe is readable enough.
#ifdef _WIN32

void openPair(int& readEnd, int& writeEnd) {
  readEnd = writeEnd = -1;
  throw std::system_error(std::make_error_code(std::errc::function_not_supported));
}
void closePair(int, int) noexcept {}
void writeTo(int) noexcept {}
void drain(int) noexcept {}

#else

void openPair(int& readEnd, int& writeEnd) {
#ifdef __linux__
  readEnd = writeEnd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (readEnd < 0) throw std::system_error(errno, std::generic_category());
#else
  int ends[2];
  if (::pipe(ends) != 0) throw std::system_error(errno, std::generic_category());
  for (const int end : ends) {
    ::fcntl(end, F_SETFD, FD_CLOEXEC);
    ::fcntl(end, F_SETFL, O_NONBLOCK);
  }
  readEnd = ends[0];
  writeEnd = ends[1];
#endif
}

void closePair(int readEnd, int writeEnd) noexcept {
  if (readEnd >= 0) ::close(readEnd);
  if (writeEnd != readEnd) ::close(writeEnd);
}

void writeTo(int writeEnd) noexcept {
  constexpr std::uint64_t one = 1;
  static_cast<void>(!::write(writeEnd, &one, sizeof one));
}

void drain(int readEnd) noexcept {
  std::uint64_t count = 0;
  static_cast<void>(!::read(readEnd, &count, sizeof count));
}

#endif

} // namespace

EventQueue::~EventQueue() { closePair(readEnd_, writeEnd_); }

void EventQueue::push(std::unique_ptr<Event> event) noexcept {
  const std::lock_guard guard(lock_);
  add(kept_, std::move(event));
}

void EventQueue::pushDroppable(std::unique_ptr<Event> event) noexcept {
  std::unique_ptr<Event> oldest; // outlives the lock
  const std::lock_guard guard(lock_);
  add(droppable_, std::move(event));
  oldest = bound();
}

bool EventQueue::addNotification(std::uint16_t commandId, std::span<const std::byte> payload) {
  std::unique_ptr<Event> oldest; // outlives the lock
  const std::lock_guard guard(lock_);
  if (!droppable_.addToLast(number_, commandId, payload)) return false;
  signal();
  oldest = bound();
  return true;
}

std::unique_ptr<Event> EventQueue::bound() noexcept {
  if (droppable_.weight() <= limit) return nullptr;
  if (droppable_.first()->notifications() > 0) ++dropped_;
  return droppable_.dropOldest();
}

void EventQueue::noteDropped() noexcept {
  const std::lock_guard guard(lock_);
  ++dropped_;
}

void EventQueue::add(EventList& list, std::unique_ptr<Event> event) noexcept {
  event->number_ = ++number_;
  list.push(std::move(event));
  signal();
}

void EventQueue::signal() noexcept {
  if (waiting_ > 0) arrived_.notify_one();
  if (writeEnd_ >= 0 && !std::exchange(signalled_, true)) writeTo(writeEnd_);
}

TakenEvents EventQueue::take() noexcept {
  const std::lock_guard guard(lock_);
  if (std::exchange(signalled_, false)) drain(readEnd_);
  return {std::move(kept_), std::move(droppable_)};
}

void EventQueue::putBack(TakenEvents events) noexcept {
  const std::lock_guard guard(lock_);
  kept_.putBack(std::move(events.kept_));
  droppable_.putBack(std::move(events.droppable_));
  if (!empty()) signal();
}

bool EventQueue::awaitEvent(TimePoint until) {
  std::unique_lock guard(lock_);
  const auto isOver = [this] { return woken_ || !empty(); };
  ++waiting_;
  bool arrived = true;
  if (until == TimePoint::max())
    arrived_.wait(guard, isOver);
  else
    arrived = arrived_.wait_until(guard, until, isOver);
  --waiting_;
  if (arrived) woken_ = false;
  return arrived;
}

void EventQueue::wake() noexcept {
  const std::lock_guard guard(lock_);
  woken_ = true;
  arrived_.notify_all();
}

int EventQueue::descriptor() {
  const std::lock_guard guard(lock_);
  if (readEnd_ < 0) {
    openPair(readEnd_, writeEnd_);
    if (!empty()) signal();
  }
  return readEnd_;
}

std::uint64_t EventQueue::dropped() const noexcept {
  const std::lock_guard guard(lock_);
  return dropped_;
}

} // namespace vorlinkit::python
