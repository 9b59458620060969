// The way from I/O threads to a Python thread that takes events when it likes.
#pragma once

#include "interpreter/SessionLifetime.hpp"

#include <vorlinkit/RawMessage.hpp>

#include <pybind11/pybind11.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace vorlinkit::python {

/// Something that has happened. Made and queued on any thread, without the interpreter lock.
class Event {
public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  virtual ~Event() = default;
  /// Appends what Python sees of it. When Python has no memory it throws, and goes on where it was when it is called
  /// again. Interpreter lock held.
  virtual void passTo(const pybind11::list& list) = 0;
  /// How many notifications it is, and the end of the oldest of them.
  virtual std::size_t notifications() const noexcept { return 0; }
  virtual void dropNotification() noexcept {}

private:
  friend class EventList;
  friend class EventQueue;
  friend class TakenEvents;
  std::unique_ptr<Event> next_;
  std::uint64_t number_ = 0; // in the order in which they happened
};

/// Events in order. Adding one takes no memory, so it cannot fail.
class EventList {
public:
  EventList() = default;
  EventList(EventList&& other) noexcept
      : first_(std::move(other.first_)), last_(std::exchange(other.last_, nullptr)),
        size_(std::exchange(other.size_, 0)) {}
  EventList& operator=(EventList&&) = delete;
  ~EventList() {
    while (first_) // not by the chain of pointers, which would nest as deep as it is long
      pop();
  }

  std::size_t size() const noexcept { return size_; }
  Event* first() const noexcept { return first_.get(); }
  void push(std::unique_ptr<Event> event) noexcept {
    Event* const added = event.get();
    (last_ ? last_->next_ : first_) = std::move(event);
    last_ = added;
    ++size_;
  }
  std::unique_ptr<Event> pop() noexcept {
    auto event = std::move(first_);
    first_ = std::move(event->next_);
    if (!first_) last_ = nullptr;
    --size_;
    return event;
  }
  /// Puts older events in front.
  void putBack(EventList older) noexcept {
    if (!older.first_) return;
    older.last_->next_ = std::move(first_);
    first_ = std::move(older.first_);
    if (!last_) last_ = older.last_;
    size_ += older.size_;
    older.last_ = nullptr;
    older.size_ = 0;
  }

private:
  std::unique_ptr<Event> first_;
  Event* last_ = nullptr;
  std::size_t size_ = 0;
};

/// Notifications that came one after the other, in one piece of memory: a flood of small ones costs hardly more than
/// the copies.
class NotificationRun final : public Event {
public:
  /// Throws when there is no memory.
  void add(const RawMessage& message);
  bool isFull() const noexcept { return bytes_.size() >= fullSize; }
  void passTo(const pybind11::list& list) override;
  std::size_t notifications() const noexcept override { return count_; }
  void dropNotification() noexcept override;

private:
  struct Head {
    std::uint32_t length;
    std::uint16_t commandId;
  };
  static constexpr std::size_t fullSize = std::size_t{32} * 1024;
  Head headAt(std::size_t begin) const noexcept;

  std::vector<std::byte> bytes_; // of each its head and its payload
  std::size_t begin_ = 0;        // of the oldest that has not been passed on
  std::size_t count_ = 0;
};

/// What a taker has at hand, in the order in which it happened.
class TakenEvents {
public:
  TakenEvents(EventList kept, EventList droppable) noexcept
      : kept_(std::move(kept)), droppable_(std::move(droppable)) {}
  /// Null at the end.
  Event* first() noexcept { return next() ? next()->first() : nullptr; }
  void pop() noexcept { next()->pop(); }
  std::size_t droppables() const noexcept {
    std::size_t count = 0;
    for (const Event* event = droppable_.first(); event; event = event->next_.get())
      count += std::max<std::size_t>(event->notifications(), 1);
    return count;
  }

private:
  friend class EventQueue;
  EventList* next() noexcept {
    const Event* const one = kept_.first();
    const Event* const other = droppable_.first();
    if (!one && !other) return nullptr;
    return !other || (one && one->number_ < other->number_) ? &kept_ : &droppable_;
  }

  EventList kept_;
  EventList droppable_;
};

/// Carries events from I/O threads, which never wait for the interpreter, to a thread of Python's. Everything is
/// guarded by one lock, which is held for a few steps only; any thread, with or without the interpreter lock.
///
/// Notifications and log records are bounded: beyond `limit` the oldest are thrown away. What somebody waits for, and
/// changes of the connection, are not.
class EventQueue final : public Wakeable {
public:
  using TimePoint = std::chrono::steady_clock::time_point;
  static constexpr std::size_t limit = 65'536;

  EventQueue() = default;
  ~EventQueue() override;

  void push(std::unique_ptr<Event> event) noexcept;
  void pushLog(std::unique_ptr<Event> record) noexcept;
  void pushNotification(const RawMessage& message) noexcept;

  TakenEvents take() noexcept;
  /// After `take`: what has not been passed on.
  void putBack(TakenEvents events) noexcept;
  /// Until there is an event, somebody calls wake(), or it is `until`. False only for the last.
  bool awaitEvent(TimePoint until);
  void wake() noexcept override;

  /// A descriptor that is readable while there are events; made when it is first asked for. Throws std::system_error.
  int descriptor();
  std::uint64_t dropped() const noexcept;

private:
  bool empty() const noexcept { return kept_.size() == 0 && droppable_.size() == 0; }
  void add(EventList& list, std::unique_ptr<Event> event) noexcept;
  void addNotification(const RawMessage& message);
  std::unique_ptr<Event> dropOldest() noexcept;
  void signal() noexcept;

  mutable std::mutex lock_;
  std::condition_variable arrived_;
  EventList kept_;
  EventList droppable_;
  std::size_t droppables_ = 0;         // the notifications and records in it
  NotificationRun* lastRun_ = nullptr; // while it is the newest of all events
  std::uint64_t number_ = 0;
  std::uint64_t dropped_ = 0;
  int waiting_ = 0;
  bool woken_ = false;
  int readEnd_ = -1; // of the descriptor; the write end may be the same
  int writeEnd_ = -1;
  bool signalled_ = false;
};

} // namespace vorlinkit::python
