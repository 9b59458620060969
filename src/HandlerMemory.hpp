// Memory for handlers of the event loop that is there before they are started.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace vorlinkit {

/// Holds one pending handler at a time, so that starting the next one takes nothing from the heap and cannot fail
/// there. A second one that is still pending goes to the heap. Must outlive the event loop's use of it.
class HandlerMemory {
public:
  HandlerMemory() = default;
  HandlerMemory(const HandlerMemory&) = delete;
  HandlerMemory& operator=(const HandlerMemory&) = delete;

  void* allocate(std::size_t size) {
    if (inUse_ || size > sizeof storage_) return ::operator new(size);
    inUse_ = true;
    return storage_;
  }
  void deallocate(void* memory) noexcept {
    if (memory == storage_)
      inUse_ = false;
    else
      ::operator delete(memory);
  }

private:
  alignas(std::max_align_t) std::byte storage_[384];
  bool inUse_ = false;
};

/// The allocator that asio asks a handler for.
template <typename T> class HandlerAllocator {
public:
  using value_type = T;

  explicit HandlerAllocator(HandlerMemory& memory) noexcept : memory_(&memory) {}
  template <typename U> HandlerAllocator(const HandlerAllocator<U>& other) noexcept : memory_(other.memory_) {}

  T* allocate(std::size_t count) { return static_cast<T*>(memory_->allocate(sizeof(T) * count)); }
  void deallocate(T* memory, std::size_t) noexcept { memory_->deallocate(memory); }

  friend bool operator==(const HandlerAllocator&, const HandlerAllocator&) = default;

private:
  template <typename> friend class HandlerAllocator;
  HandlerMemory* memory_;
};

/// A handler that lives in `memory` while it is pending.
template <typename Handler> class HandlerIn {
public:
  using allocator_type = HandlerAllocator<Handler>;

  HandlerIn(HandlerMemory& memory, Handler handler) : memory_(&memory), handler_(std::move(handler)) {}
  // NOLINTNEXTLINE(readability-identifier-naming): asio's name
  allocator_type get_allocator() const noexcept { return allocator_type(*memory_); }
  template <typename... Args> void operator()(Args&&... args) { handler_(std::forward<Args>(args)...); }

private:
  HandlerMemory* memory_;
  Handler handler_;
};

} // namespace vorlinkit
