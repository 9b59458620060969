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
  void* const memory = PyObject_Malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

template <typename Anchor> void freeAnchor(Anchor* anchor) noexcept {
  anchor->~Anchor();
  PyObject_Free(anchor);
}

void unlink(ViewAnchor& view) noexcept {
  *view.link = view.next;
  if (view.next != nullptr) view.next->link = view.link;
}

/// Frees an anchor without holders; returns the owner that it held.
RecordAnchor* destroy(RecordAnchor* anchor) noexcept {
  switch (anchor->kind) {
  case RecordAnchor::Kind::Root: {
    auto* const root = static_cast<RootAnchor*>(anchor);
    root->type.destroy(root->record());
    freeAnchor(root);
    return nullptr;
  }
  case RecordAnchor::Kind::View: {
    auto* const view = static_cast<ViewAnchor*>(anchor);
    RecordAnchor* const owner = view->owner;
    unlink(*view);
    freeAnchor(view);
    return owner;
  }
  case RecordAnchor::Kind::Former: {
    auto* const former = static_cast<FormerAnchor*>(anchor);
    RecordAnchor* const root = former->root;
    former->drop(former->content);
    freeAnchor(former);
    return root;
  }
  }
  return nullptr;
}

bool lies(const void* address, const void* begin, std::size_t size) {
  const auto offset = reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(begin);
  return offset < size;
}

/// A place for what a container holds now, if anyone looks at it. Nothing has changed yet when this throws.
class FormerContent {
public:
  FormerContent(RootAnchor& root, void* container, const void* operations, void (*drop)(void*))
      : root_(root), container_(container), operations_(operations) {
    std::size_t count = 0;
    for (const ViewAnchor* view = root.views; view != nullptr; view = view->next)
      count += looksAt(*view) ? 1U : 0U;
    if (count == 0) return;
    owners_.reserve(count + 1);
    anchor_ = ::new (allocate(sizeof(FormerAnchor))) FormerAnchor(root, drop);
  }
  FormerContent(const FormerContent&) = delete;
  FormerContent& operator=(const FormerContent&) = delete;

  ~FormerContent() {
    if (anchor_ != nullptr && anchor_->holders == 0) { // the copying failed
      --root_.holders;
      freeAnchor(anchor_);
    }
    // Last of all, since this may free view anchors and take them out of the root's list.
    for (RecordAnchor* const owner : owners_)
      release(owner);
  }

  /// Where the former content is to be put; null if nobody looks at it.
  void** place() { return anchor_ == nullptr ? nullptr : &anchor_->content; }

  /// The former content now belongs to its views.
  void handOver() {
    if (anchor_ == nullptr) return;
    for (ViewAnchor* view = root_.views; view != nullptr; view = view->next) {
      if (!looksAt(*view)) continue;
      owners_.push_back(std::exchange(view->owner, anchor_));
      ++anchor_->holders;
      view->container = nullptr;
    }
  }

  /// An alternative lies inside its record: once moved, its view and the view anchors inside it follow.
  void follow(std::size_t size) {
    if (anchor_ == nullptr) return;
    for (ViewAnchor* view = root_.views; view != nullptr; view = view->next) {
      if (!lies(view->container, container_, size)) continue;
      if (view->onlyView != nullptr) view->onlyView->record = moved(view->onlyView->record);
      view->container = moved(view->container);
    }
  }

private:
  bool looksAt(const ViewAnchor& view) const {
    return view.operations == operations_ &&
           (view.container == container_ || (anchor_ != nullptr && view.container == anchor_->content));
  }

  void* moved(const void* address) const {
    const auto offset = static_cast<const char*>(address) - static_cast<const char*>(container_);
    return static_cast<char*>(anchor_->content) + offset;
  }

  RootAnchor& root_;
  void* container_;
  const void* operations_;
  FormerAnchor* anchor_ = nullptr;
  std::vector<RecordAnchor*> owners_;
};

} // namespace

ViewAnchor::ViewAnchor(RecordAnchor& owner, void* container, const void* operations)
    : RecordAnchor(Kind::View, *owner.root), owner(&owner), container(container), operations(operations),
      next(owner.root->views), link(&owner.root->views) {
  ++owner.holders;
  *link = this;
  if (next != nullptr) next->link = &next;
}

void* RootAnchor::record() noexcept { return reinterpret_cast<char*>(this) + recordOffset; }

RootAnchor* allocateRoot(const RecordType& type) { return ::new (allocate(recordOffset + type.size)) RootAnchor(type); }

void discardRoot(RootAnchor* root) noexcept { freeAnchor(root); }

ViewAnchor* createViewAnchor(RecordAnchor& owner, void* container, const void* operations) {
  return ::new (allocate(sizeof(ViewAnchor))) ViewAnchor(owner, container, operations);
}

void release(RecordAnchor* anchor) noexcept {
  while (anchor != nullptr && --anchor->holders == 0)
    anchor = destroy(anchor);
}

void replaceList(RootAnchor& root, void* list, const ListOperations& operations, const void* const* items,
                 std::size_t count) {
  FormerContent former(root, list, &operations, operations.drop);
  operations.replace(list, items, count, former.place());
  former.handOver();
}

void replaceBytes(RootAnchor& root, void* list, const BlobOperations& operations, const void* bytes,
                  std::size_t count) {
  const ListOperations& listOperations = operations; // what the view anchors of the list were made with
  FormerContent former(root, list, &listOperations, operations.drop);
  operations.replaceBytes(list, bytes, count, former.place());
  former.handOver();
}

void replaceVariant(RootAnchor& root, void* variant, const VariantOperations& operations, std::size_t index,
                    const void* alternative) {
  FormerContent former(root, variant, &operations, operations.drop);
  operations.replace(variant, index, alternative, former.place());
  former.follow(operations.size);
  former.handOver();
}

} // namespace vorlinkit::python
