// What the record binding knows about a record of the catalogue: constant tables, declared by the generated
// blocks and read by the few functions that create, view, read and write records of every type. Nothing here
// needs the binding library.
#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace vorlinkit::python {

/// One record type: its name, how its memory is made and unmade, and its Python class once registered.
/// The Python class is written once, at import, under the interpreter lock; the rest never changes.
struct RecordType {
  PyMethodDef methods[2]; ///< `__init__`; first, since a class has no other way back to its record type
  const char* name;       ///< with the module's before it
  const char* doc;
  PyGetSetDef* attributes; ///< one per field (two per byte blob), ended by an empty one
  std::size_t size;
  void (*construct)(void* memory); ///< value-initialises
  void (*destroy)(void* record);
  PyTypeObject* pythonType = nullptr;

  // For reading attributes of unchanged classes without a look-up: their interned names, in order, and the
  // version that the interpreter gave the class when it had just these.
  PyObject** attributeNames = nullptr;
  std::size_t attributeCount = 0;
  unsigned int classVersion = 0;
};
static_assert(std::is_standard_layout_v<RecordType>, "a pointer to its methods is one to the whole");

/// What can be done with a list field whose item type only the table knows. Its address identifies the type
/// of the list.
struct ListOperations {
  RecordType* item;
  std::size_t stride;
  std::size_t (*size)(const void* list);
  void* (*data)(void* list);
  /// Stores copies of `count` items. The former list moves to the heap if `former` is given (its items keep
  /// their addresses), and is freed otherwise. Throws before anything has changed, or not at all.
  void (*replace)(void* list, const void* const* items, std::size_t count, void** former);
  void (*drop)(void* former);
};

/// A list whose items are one byte each; beside the items it offers the bytes at once.
struct BlobOperations : ListOperations {
  /// As `replace`, with the bytes of the items in a row.
  void (*replaceBytes)(void* list, const void* bytes, std::size_t count, void** former);
};

/// What can be done with a variant field.
struct VariantOperations {
  RecordType* const* alternatives; ///< in declaration order
  std::size_t count;
  std::size_t size; ///< bytes that the variant takes inside its record
  std::size_t (*index)(const void* variant);
  void* (*active)(void* variant);
  /// Stores a copy of `alternative`, which is of type number `index`. As for lists, but a former alternative
  /// that moves to the heap changes its address.
  void (*replace)(void* variant, std::size_t index, const void* alternative, void** former);
  void (*drop)(void* former);
};

/// What lies in the record at a field's place.
enum class FieldKind : unsigned char {
  Number,
  Text,
  List,
  BlobItems, ///< the bytes of a blob as a list of items; its Blob follows
  Blob,
  Variant
};

/// One attribute of a record class; what the accessor functions get to see.
struct Field {
  const char* attribute;
  const char* doc;
  getter get;
  setter set;
  std::size_t offset;
  FieldKind kind;
  unsigned char width = 0;          ///< bytes of a number
  const void* operations = nullptr; ///< ListOperations or VariantOperations; for a blob, those inside BlobOperations
};

inline const ListOperations& listOperations(const Field& field) {
  return *static_cast<const ListOperations*>(field.operations);
}

inline const BlobOperations& blobOperations(const Field& field) {
  return static_cast<const BlobOperations&>(listOperations(field));
}

inline const VariantOperations& variantOperations(const Field& field) {
  return *static_cast<const VariantOperations*>(field.operations);
}

// The accessors, one pair per kind of field; the closure is the Field.
template <typename Number> PyObject* readNumber(PyObject* self, void* field);
template <typename Number> int writeNumber(PyObject* self, PyObject* value, void* field);
PyObject* readText(PyObject* self, void* field);
int writeText(PyObject* self, PyObject* value, void* field);
PyObject* readList(PyObject* self, void* field);
int writeList(PyObject* self, PyObject* value, void* field);
PyObject* readBlob(PyObject* self, void* field);
int writeBlob(PyObject* self, PyObject* value, void* field);
PyObject* readVariant(PyObject* self, void* field);
int writeVariant(PyObject* self, PyObject* value, void* field);

// What the generated tables are written with.

template <typename Item> std::size_t listSize(const void* list) {
  return static_cast<const std::vector<Item>*>(list)->size();
}

template <typename Item> void* listData(void* list) { return static_cast<std::vector<Item>*>(list)->data(); }

template <typename Item> void storeList(void* list, std::vector<Item>&& items, void** former) {
  auto& stored = *static_cast<std::vector<Item>*>(list);
  if (former != nullptr) *former = new std::vector<Item>(std::move(stored));
  stored = std::move(items);
}

template <typename Item> void replaceList(void* list, const void* const* items, std::size_t count, void** former) {
  std::vector<Item> copies;
  copies.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    copies.push_back(*static_cast<const Item*>(items[i]));
  storeList(list, std::move(copies), former);
}

template <typename Item> void replaceBytes(void* list, const void* bytes, std::size_t count, void** former) {
  std::vector<Item> copies(count);
  if (count != 0) std::memcpy(copies.data(), bytes, count);
  storeList(list, std::move(copies), former);
}

template <typename Item> void dropList(void* former) { delete static_cast<std::vector<Item>*>(former); }

template <typename Item> constexpr ListOperations listOf(RecordType& item) {
  return {&item, sizeof(Item), listSize<Item>, listData<Item>, replaceList<Item>, dropList<Item>};
}

template <typename Item> constexpr BlobOperations blobOf(RecordType& item) {
  static_assert(sizeof(Item) == 1 && std::is_trivially_copyable_v<Item>, "an item is its byte and nothing else");
  return {listOf<Item>(item), replaceBytes<Item>};
}

template <typename Variant> std::size_t variantIndex(const void* variant) {
  return static_cast<const Variant*>(variant)->index();
}

template <typename Variant> void* activeAlternative(void* variant) {
  return std::visit([](auto& alternative) -> void* { return &alternative; }, *static_cast<Variant*>(variant));
}

template <typename Variant, std::size_t... Index>
Variant copyAlternative(std::size_t index, const void* alternative, std::index_sequence<Index...>) {
  using Copy = Variant (*)(const void*);
  static constexpr Copy copies[] = {[](const void* source) {
    return Variant(std::in_place_index<Index>, *static_cast<const std::variant_alternative_t<Index, Variant>*>(source));
  }...};
  return copies[index](alternative);
}

template <typename Variant>
void replaceVariant(void* variant, std::size_t index, const void* alternative, void** former) {
  auto& stored = *static_cast<Variant*>(variant);
  // Copied first: the source may be a view of the very alternative that is replaced.
  Variant copy = copyAlternative<Variant>(index, alternative, std::make_index_sequence<std::variant_size_v<Variant>>());
  if (former != nullptr) *former = new Variant(std::move(stored));
  stored = std::move(copy);
}

template <typename Variant> void dropVariant(void* former) { delete static_cast<Variant*>(former); }

template <typename Variant, std::size_t Count>
constexpr VariantOperations variantOf(RecordType* const (&alternatives)[Count]) {
  static_assert(Count == std::variant_size_v<Variant>);
  return {alternatives,
          Count,
          sizeof(Variant),
          variantIndex<Variant>,
          activeAlternative<Variant>,
          replaceVariant<Variant>,
          dropVariant<Variant>};
}

/// A number or a text.
template <typename Member> constexpr Field field(const char* attribute, std::size_t offset, const char* doc) {
  if constexpr (std::is_same_v<Member, std::string>) {
    return {attribute, doc, readText, writeText, offset, FieldKind::Text};
  } else {
    static_assert(std::is_unsigned_v<Member>);
    return {attribute, doc, readNumber<Member>, writeNumber<Member>, offset, FieldKind::Number, sizeof(Member)};
  }
}

constexpr Field list(const char* attribute, std::size_t offset, const ListOperations& operations, const char* doc) {
  return {attribute, doc, readList, writeList, offset, FieldKind::List, 0, &operations};
}

constexpr Field list(const char* attribute, std::size_t offset, const BlobOperations& operations, const char* doc) {
  const ListOperations& listOperations = operations;
  return {attribute, doc, readList, writeList, offset, FieldKind::BlobItems, 0, &listOperations};
}

/// The same list again, as the bytes it holds.
constexpr Field blob(const char* attribute, std::size_t offset, const BlobOperations& operations, const char* doc) {
  const ListOperations& listOperations = operations;
  return {attribute, doc, readBlob, writeBlob, offset, FieldKind::Blob, 0, &listOperations};
}

constexpr Field variant(const char* attribute, std::size_t offset, const VariantOperations& operations,
                        const char* doc) {
  return {attribute, doc, readVariant, writeVariant, offset, FieldKind::Variant, 0, &operations};
}

/// The fields in the form in which the interpreter takes attributes.
template <std::size_t Count> constexpr std::array<PyGetSetDef, Count + 1> attributesOf(const Field (&fields)[Count]) {
  std::array<PyGetSetDef, Count + 1> attributes{};
  for (std::size_t i = 0; i < Count; ++i) {
    const Field& entry = fields[i];
    attributes[i] = {entry.attribute, entry.get, entry.set, entry.doc, const_cast<Field*>(&entry)};
  }
  return attributes;
}

constexpr std::array<PyGetSetDef, 1> noAttributes() { return {}; }

template <typename Record> void constructRecord(void* memory) { ::new (memory) Record{}; }

template <typename Record> void destroyRecord(void* record) { std::destroy_at(static_cast<Record*>(record)); }

template <typename Record> constexpr RecordType record(const char* name, PyGetSetDef* attributes, const char* doc) {
  static_assert(alignof(Record) <= alignof(std::max_align_t), "the allocator of the interpreter aligns no further");
  return {{}, name, doc, attributes, sizeof(Record), constructRecord<Record>, destroyRecord<Record>};
}

} // namespace vorlinkit::python
