// The way from I/O threads to a Python thread that takes events when it likes.
#pragma once

#include "interpreter/SessionLifetime.hpp"

#include <pybind11/pybind11.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

namespace vorlinkit::python {

/// Something that has happened. Made and queued on any thread, without the interpreter lock.
class Event {
public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  virtual ~Event() = default;
  /// As Python sees it; may be called again when Python had no memory for it. Interpreter lock held.
  virtual pybind11::tuple toPython() const = 0;

  /// How many notifications it stands for.
  virtual std::size_t notifications() const noexcept { return 0; }
  /// Takes one more in, if it can: with the queue's lock, when nothing has happened since.
  virtual bool add(std::uint16_t /*commandId*/, std::span<const std::byte> /*payload*/) { return false; }
  /// Throws its oldest part away; false if that is all of it.
  virtual bool dropOldest() noexcept { return false; }

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
        weight_(std::exchange(other.weight_, 0)) {}
  EventList& operator=(EventList&&) = delete;
  ~EventList() {
    while (first_) // not by the chain of pointers, which would nest as deep as it is long
      pop();
  }

  /// How many events there are, each notification counted.
  std::size_t weight() const noexcept { return weight_; }
  bool empty() const noexcept { return !first_; }
  const Event* first() const noexcept { return first_.get(); }
  void push(std::unique_ptr<Event> event) noexcept {
    Event* const added = event.get();
    (last_ ? last_->next_ : first_) = std::move(event);
    last_ = added;
    weight_ += weightOf(*added);
  }
  /// Into the event `number`, if that is the last one and takes it.
  bool addToLast(std::uint64_t number, std::uint16_t commandId, std::span<const std::byte> payload) {
    if (!last_ || last_->number_ != number || !last_->add(commandId, payload)) return false;
    ++weight_;
    return true;
  }
  /// The oldest event, or null when a part of it was enough.
  std::unique_ptr<Event> dropOldest() noexcept {
    if (!first_->dropOldest()) return pop();
    --weight_;
    return nullptr;
  }
  std::unique_ptr<Event> pop() noexcept {
    auto event = std::move(first_);
    first_ = std::move(event->next_);
    if (!first_) last_ = nullptr;
    weight_ -= weightOf(*event);
    return event;
  }
  /// Puts older events in front.
  void putBack(EventList older) noexcept {
    if (!older.first_) return;
    older.last_->next_ = std::move(first_);
    first_ = std::move(older.first_);
    if (!last_) last_ = older.last_;
    weight_ += older.weight_;
    older.last_ = nullptr;
    older.weight_ = 0;
  }

private:
  static std::size_t weightOf(const Event& event) noexcept { return std::max<std::size_t>(event.notifications(), 1); }

  std::unique_ptr<Event> first_;
  Event* last_ = nullptr;
  std::size_t weight_ = 0;
};

/// What a taker has at hand, in the order in which it happened.
class TakenEvents {
public:
  TakenEvents(EventList kept, EventList droppable) noexcept
      : kept_(std::move(kept)), droppable_(std::move(droppable)) {}
  /// Null at the end.
  const Event* first() noexcept { return next() ? next()->first() : nullptr; }
  void pop() noexcept { next()->pop(); }

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
  void pushDroppable(std::unique_ptr<Event> event) noexcept;
  /// Adds a notification to the last event, if that is one of the same command; false: it needs an event of its own.
  /// Throws std::bad_alloc.
  bool addNotification(std::uint16_t commandId, std::span<const std::byte> payload);
  /// A notification for which there was no memory.
  void noteDropped() noexcept;

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
  bool empty() const noexcept { return kept_.empty() && droppable_.empty(); }
  void add(EventList& list, std::unique_ptr<Event> event) noexcept;
  void signal() noexcept;
  /// The event of which nothing is left, to be destroyed without the lock.
  std::unique_ptr<Event> bound() noexcept;

  mutable std::mutex lock_;
  std::condition_variable arrived_;
  EventList kept_;
  EventList droppable_;
  std::uint64_t number_ = 0;
  std::uint64_t dropped_ = 0;
  int waiting_ = 0;
  bool woken_ = false;
  int readEnd_ = -1; // of the descriptor; the write end may be the same
  int writeEnd_ = -1;
  bool signalled_ = false;
};

} // namespace vorlinkit::python
