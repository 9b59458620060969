#include "records/RecordAnchor.hpp"

#include "records/RecordObject.hpp"

#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace vorlinkit::python {

namespace {

constexpr std::size_t recordOffset =
    (sizeof(RootAnchor) + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);

void* allocate(std::size_t size) {
  void* memory = PyObject_Malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

template <typename Anchor> void freeAnchor(Anchor* anchor) noexcept {
  anchor->~Anchor();
  PyObject_Free(anchor);
}

void unlink(LeaseAnchor& lease) noexcept {
  *lease.link = lease.next;
  if (lease.next != nullptr) lease.next->link = lease.link;
}

/// Frees an anchor without holders; returns the owner that it held.
RecordAnchor* destroy(RecordAnchor* anchor) noexcept {
  switch (anchor->kind) {
  case RecordAnchor::Kind::Root: {
    auto* root = static_cast<RootAnchor*>(anchor);
    root->type.destroy(root->record());
    freeAnchor(root);
    return nullptr;
  }
  case RecordAnchor::Kind::Lease: {
    auto* lease = static_cast<LeaseAnchor*>(anchor);
    RecordAnchor* owner = lease->owner;
    unlink(*lease);
    freeAnchor(lease);
    return owner;
  }
  case RecordAnchor::Kind::Retired: {
    auto* retired = static_cast<RetiredAnchor*>(anchor);
    RecordAnchor* root = retired->root;
    retired->drop(retired->content);
    freeAnchor(retired);
    return root;
  }
  }
  return nullptr;
}

bool lies(const void* address, const void* begin, std::size_t size) {
  const auto offset = reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(begin);
  return offset < size;
}

/// Makes room for what a container holds now, for the leases that look at it. Nothing has changed yet when
/// this throws.
class Retirement {
public:
  Retirement(RootAnchor& root, void* container, const void* operations, void (*drop)(void*))
      : root_(root), container_(container), operations_(operations) {
    std::size_t count = 0;
    for (LeaseAnchor* lease = root.leases; lease != nullptr; lease = lease->next)
      count += looksAt(*lease) ? 1U : 0U;
    if (count != 0) {
      owners_.reserve(count + 1);
      retired_ = ::new (allocate(sizeof(RetiredAnchor))) RetiredAnchor(root, drop);
    }
  }
  Retirement(const Retirement&) = delete;
  Retirement& operator=(const Retirement&) = delete;

  ~Retirement() {
    if (retired_ != nullptr && retired_->holders == 0) { // the copying failed
      --root_.holders;
      freeAnchor(retired_);
    }
    // Last of all, since this may free leases and take them out of the root's list.
    for (RecordAnchor* owner : owners_)
      release(owner);
  }

  /// Where the former content is to be put; null if nobody looks at it.
  void** former() { return retired_ == nullptr ? nullptr : &retired_->content; }

  /// The former content now belongs to its views.
  void handOver() {
    for (LeaseAnchor* lease = root_.leases; retired_ != nullptr && lease != nullptr; lease = lease->next) {
      if (looksAt(*lease)) {
        owners_.push_back(std::exchange(lease->owner, retired_));
        ++retired_->holders;
        lease->container = nullptr;
      }
    }
  }

  /// An alternative lies inside its record: once moved, its view and the leases inside it follow.
  void follow(std::size_t size) {
    for (LeaseAnchor* lease = root_.leases; retired_ != nullptr && lease != nullptr; lease = lease->next) {
      if (!lies(lease->container, container_, size)) continue;
      if (lease->view != nullptr) setRecord(*lease->view, moved(recordOf(*lease->view)));
      lease->container = moved(lease->container);
    }
  }

private:
  bool looksAt(const LeaseAnchor& lease) const {
    return lease.operations == operations_ &&
           (lease.container == container_ || (retired_ != nullptr && lease.container == retired_->content));
  }

  void* moved(const void* address) const {
    const auto offset = static_cast<const char*>(address) - static_cast<const char*>(container_);
    return static_cast<char*>(retired_->content) + offset;
  }

  RootAnchor& root_;
  void* container_;
  const void* operations_;
  RetiredAnchor* retired_ = nullptr;
  std::vector<RecordAnchor*> owners_;
};

} // namespace

LeaseAnchor::LeaseAnchor(RecordAnchor& owner, void* container, const void* operations)
    : RecordAnchor(Kind::Lease, *owner.root), owner(&owner), container(container), operations(operations),
      next(owner.root->leases), link(&owner.root->leases) {
  ++owner.holders;
  *link = this;
  if (next != nullptr) next->link = &next;
}

void* RootAnchor::record() noexcept { return reinterpret_cast<char*>(this) + recordOffset; }

RootAnchor* allocateRoot(const RecordType& type) { return ::new (allocate(recordOffset + type.size)) RootAnchor(type); }

void discardRoot(RootAnchor* root) noexcept { freeAnchor(root); }

LeaseAnchor* createLease(RecordAnchor& owner, void* container, const void* operations) {
  return ::new (allocate(sizeof(LeaseAnchor))) LeaseAnchor(owner, container, operations);
}

void release(RecordAnchor* anchor) noexcept {
  while (anchor != nullptr && --anchor->holders == 0)
    anchor = destroy(anchor);
}

void replaceList(RootAnchor& root, void* list, const ListOperations& operations, const void* const* items,
                 std::size_t count) {
  Retirement retirement(root, list, &operations, operations.drop);
  operations.replace(list, items, count, retirement.former());
  retirement.handOver();
}

void replaceBytes(RootAnchor& root, void* list, const BlobOperations& operations, const void* bytes,
                  std::size_t count) {
  const ListOperations& list_operations = operations; // what the leases of the list were made with
  Retirement retirement(root, list, &list_operations, operations.drop);
  operations.replace_bytes(list, bytes, count, retirement.former());
  retirement.handOver();
}

void replaceVariant(RootAnchor& root, void* variant, const VariantOperations& operations, std::size_t index,
                    const void* alternative) {
  Retirement retirement(root, variant, &operations, operations.drop);
  operations.replace(variant, index, alternative, retirement.former());
  retirement.follow(operations.size);
  retirement.handOver();
}

} // namespace vorlinkit::python
