// A queue that takes no memory of its own.
#pragma once

#include <memory>
#include <utility>

namespace vorlinkit {

/// What a LinkedList holds derives from this.
template <typename Item> class LinkedListItem {
  template <typename> friend class LinkedList;
  std::unique_ptr<Item> next_;
};

/// Items in the order in which they came. Adding one takes no memory, so it cannot fail.
template <typename Item> class LinkedList {
public:
  LinkedList() = default;
  LinkedList(const LinkedList&) = delete;
  LinkedList& operator=(const LinkedList&) = delete;
  ~LinkedList() {
    while (!empty()) // not by the chain of pointers, which would nest as deep as it is long
      pop();
  }

  bool empty() const noexcept { return !first_; }
  void push(std::unique_ptr<Item> item) noexcept {
    Item* const added = item.get();
    (last_ ? last_->next_ : first_) = std::move(item);
    last_ = added;
  }
  std::unique_ptr<Item> pop() noexcept {
    auto item = std::move(first_);
    first_ = std::move(item->next_);
    if (!first_) last_ = nullptr;
    return item;
  }
  void swap(LinkedList& other) noexcept {
    first_.swap(other.first_);
    std::swap(last_, other.last_);
  }

private:
  std::unique_ptr<Item> first_;
  Item* last_ = nullptr;
};

} // namespace vorlinkit
