// What keeps the memory behind Python's views of records alive.
#pragma once

#include "records/RecordType.hpp"

#include <cstddef>

namespace vorlinkit::python {

struct RecordObject;
struct RootAnchor;

/// Counted ownership of the memory that views point into. Every record object of Python holds one anchor:
/// the root anchor of a record that was made or decoded, or the view anchor of the list or variant that it was
/// read from. Anchors point only at their owners and never at Python objects, so no reference cycle can form.
///
/// Writing a list or a variant that someone still looks at would pull the memory away from under the views.
/// The root knows all view anchors of its record, so the writer finds those of the container it replaces, and
/// hands the former content to them: it lives as long as the last of these views, and not longer.
///
/// Used under the interpreter lock only.
struct RecordAnchor {
  enum class Kind : unsigned char { Root, View, Former };

  RecordAnchor(Kind kind, RootAnchor& root) : root(&root), kind(kind) {}

  std::size_t holders = 0; ///< record objects and other anchors
  RootAnchor* const root;
  const Kind kind;
};

/// Held by the views that came out of one reading of a list or a variant.
struct ViewAnchor : RecordAnchor {
  ViewAnchor(RecordAnchor& owner, void* container, const void* operations);

  RecordAnchor* owner;              ///< of the memory that `container` lies in, or of the former content
  void* container;                  ///< null once the container has been written and the views keep its former content
  const void* operations;           ///< tells containers apart that begin at the same address
  RecordObject* onlyView = nullptr; ///< of a variant: its address follows the alternative
  ViewAnchor* next;
  ViewAnchor** link; ///< what points here in the list of the root
};

/// Owns one whole record, which lies right behind it.
struct RootAnchor : RecordAnchor {
  explicit RootAnchor(const RecordType& type) : RecordAnchor(Kind::Root, *this), type(type) {}

  void* record() noexcept;

  const RecordType& type;
  ViewAnchor* views = nullptr;
};

/// Owns what a list or variant held before it was written.
struct FormerAnchor : RecordAnchor {
  FormerAnchor(RootAnchor& root, void (*drop)(void*)) : RecordAnchor(Kind::Former, root), drop(drop) { ++root.holders; }

  void* content = nullptr;
  void (*const drop)(void*);
};

/// Memory for a root and its record, which the caller then constructs. Throws std::bad_alloc.
RootAnchor* allocateRoot(const RecordType& type);

/// Gives back a root whose record has not been constructed.
void discardRoot(RootAnchor* root) noexcept;

/// A view anchor with no holders yet. Throws std::bad_alloc.
ViewAnchor* createViewAnchor(RecordAnchor& owner, void* container, const void* operations);

/// Takes one holder away, and frees what nobody holds any more.
void release(RecordAnchor* anchor) noexcept;

/// Stores copies of the items in a list of `root`'s record (or of a former part of it).
void replaceList(RootAnchor& root, void* list, const ListOperations& operations, const void* const* items,
                 std::size_t count);

/// The same, with the items as bytes in a row.
void replaceBytes(RootAnchor& root, void* list, const BlobOperations& operations, const void* bytes, std::size_t count);

/// Stores a copy of an alternative, which is of type number `index`.
void replaceVariant(RootAnchor& root, void* variant, const VariantOperations& operations, std::size_t index,
                    const void* alternative);

} // namespace vorlinkit::python
