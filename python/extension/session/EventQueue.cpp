#include "session/EventQueue.hpp"

#include "session/Events.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>

#ifdef __linux__
#include <sys/eventfd.h>
#endif
#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>
#endif

namespace py = pybind11;

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

void NotificationRun::add(const RawMessage& message) {
  const Head head{static_cast<std::uint32_t>(message.payload.size()), message.commandId};
  const std::size_t end = bytes_.size();
  const std::size_t needed = end + sizeof head + message.payload.size();
  if (needed > bytes_.capacity()) bytes_.reserve(std::max(needed, std::min(2 * needed, fullSize)));
  bytes_.resize(needed);
  std::memcpy(bytes_.data() + end, &head, sizeof head);
  std::ranges::copy(message.payload, bytes_.data() + end + sizeof head);
  ++count_;
}

NotificationRun::Head NotificationRun::headAt(std::size_t begin) const noexcept {
  Head head{};
  std::memcpy(&head, bytes_.data() + begin, sizeof head);
  return head;
}

void NotificationRun::passTo(const py::list& list) {
  while (count_ > 0) {
    const std::uint16_t commandId = headAt(begin_).commandId;
    py::list payloads;
    std::size_t at = begin_;
    std::size_t passed = 0;
    for (; passed < count_ && headAt(at).commandId == commandId; ++passed) {
      const std::size_t length = headAt(at).length;
      payloads.append(py::bytes(reinterpret_cast<const char*>(bytes_.data()) + at + sizeof(Head), length));
      at += sizeof(Head) + length;
    }
    if (PyList_Append(list.ptr(), notificationsTuple(commandId, payloads).ptr()) != 0) throw py::error_already_set();
    begin_ = at;
    count_ -= passed;
  }
}

void NotificationRun::dropNotification() noexcept {
  begin_ += sizeof(Head) + headAt(begin_).length;
  --count_;
}

void EventQueue::push(std::unique_ptr<Event> event) noexcept {
  const std::lock_guard guard(lock_);
  add(kept_, std::move(event));
}

void EventQueue::pushLog(std::unique_ptr<Event> record) noexcept {
  std::unique_ptr<Event> dropped; // outlives the lock
  const std::lock_guard guard(lock_);
  add(droppable_, std::move(record));
  if (++droppables_ > limit) dropped = dropOldest();
}

void EventQueue::pushNotification(const RawMessage& message) noexcept {
  std::unique_ptr<Event> dropped; // outlives the lock
  const std::lock_guard guard(lock_);
  try {
    addNotification(message);
  } catch (const std::exception&) { // only memory can run out in here
    ++dropped_;
    return;
  }
  if (++droppables_ > limit) dropped = dropOldest();
}

void EventQueue::addNotification(const RawMessage& message) {
  if (lastRun_ && !lastRun_->isFull()) return lastRun_->add(message);
  auto run = std::make_unique<NotificationRun>();
  run->add(message);
  auto* const last = run.get();
  add(droppable_, std::move(run));
  lastRun_ = last;
}

/// Yields an event that is over.
std::unique_ptr<Event> EventQueue::dropOldest() noexcept {
  --droppables_;
  Event* const oldest = droppable_.first();
  const std::size_t notifications = oldest->notifications();
  if (notifications > 0) ++dropped_;
  if (notifications > 1) return oldest->dropNotification(), nullptr;
  return droppable_.pop();
}

void EventQueue::add(EventList& list, std::unique_ptr<Event> event) noexcept {
  const bool wasEmpty = empty();
  event->number_ = ++number_;
  list.push(std::move(event));
  lastRun_ = nullptr;
  if (wasEmpty) signal();
}

/// There are events where none were.
void EventQueue::signal() noexcept {
  if (waiting_ > 0) arrived_.notify_one();
  if (writeEnd_ >= 0 && !std::exchange(signalled_, true)) writeTo(writeEnd_);
}

TakenEvents EventQueue::take() noexcept {
  const std::lock_guard guard(lock_);
  if (std::exchange(signalled_, false)) drain(readEnd_);
  lastRun_ = nullptr;
  droppables_ = 0;
  return {std::move(kept_), std::move(droppable_)};
}

void EventQueue::putBack(TakenEvents events) noexcept {
  const std::lock_guard guard(lock_);
  const bool wasEmpty = empty();
  droppables_ += events.droppables();
  kept_.putBack(std::move(events.kept_));
  droppable_.putBack(std::move(events.droppable_));
  if (wasEmpty && !empty()) signal();
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
