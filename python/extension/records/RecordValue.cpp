#include "records/RecordValue.hpp"

#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

// What a description shows of more than it has room for.
constexpr std::size_t mostCharacters = 80;
constexpr std::size_t mostBytes = 32;
constexpr std::size_t mostItems = 4;
constexpr std::size_t shownItems = 3;

template <typename Act> void forEachField(const RecordType& type, Act&& act) {
  for (const PyGetSetDef* attribute = type.attributes; attribute->name != nullptr; ++attribute)
    act(*static_cast<const Field*>(attribute->closure));
}

void* placeOf(void* record, const Field& field) { return static_cast<char*>(record) + field.offset; }

void* itemAt(const ListOperations& list, void* stored, std::size_t index) {
  return static_cast<char*>(list.data(stored)) + index * list.stride;
}

std::string& textAt(void* place) { return *static_cast<std::string*>(place); }

bool sameItems(const ListOperations& list, void* left, void* right) {
  const std::size_t size = list.size(left);
  if (size != list.size(right)) return false;
  for (std::size_t i = 0; i < size; ++i)
    if (!sameContent(*list.item, itemAt(list, left, i), itemAt(list, right, i))) return false;
  return true;
}

bool sameBytes(const ListOperations& list, void* left, void* right) {
  const std::size_t size = list.size(left);
  return size == list.size(right) && (size == 0 || std::memcmp(list.data(left), list.data(right), size) == 0);
}

bool sameAlternative(const VariantOperations& variant, void* left, void* right) {
  const std::size_t index = variant.index(left);
  return index == variant.index(right) &&
         sameContent(*variant.alternatives[index], variant.active(left), variant.active(right));
}

bool sameField(const Field& field, void* left, void* right) {
  switch (field.kind) {
  case FieldKind::Number:
    return std::memcmp(left, right, field.width) == 0;
  case FieldKind::Text:
    return textAt(left) == textAt(right);
  case FieldKind::List:
    return sameItems(listOperations(field), left, right);
  case FieldKind::BlobItems:
    return sameBytes(listOperations(field), left, right);
  case FieldKind::Blob: // its items have been compared
    return true;
  case FieldKind::Variant:
    return sameAlternative(variantOperations(field), left, right);
  }
  return false;
}

void copyItems(const ListOperations& list, void* to, void* from) {
  std::vector<const void*> items(list.size(from));
  for (std::size_t i = 0; i < items.size(); ++i)
    items[i] = itemAt(list, from, i);
  list.replace(to, items.data(), items.size(), nullptr);
}

void copyField(const Field& field, void* to, void* from) {
  switch (field.kind) {
  case FieldKind::Number:
    std::memcpy(to, from, field.width);
    return;
  case FieldKind::Text:
    textAt(to) = textAt(from);
    return;
  case FieldKind::List:
    copyItems(listOperations(field), to, from);
    return;
  case FieldKind::BlobItems:
    return; // the blob is copied at once
  case FieldKind::Blob: {
    const BlobOperations& blob = blobOperations(field);
    blob.replaceBytes(to, blob.data(from), blob.size(from), nullptr);
    return;
  }
  case FieldKind::Variant: {
    const VariantOperations& variant = variantOperations(field);
    variant.replace(to, variant.index(from), variant.active(from), nullptr);
    return;
  }
  }
}

std::uint64_t numberAt(const void* place, std::size_t width) {
  switch (width) {
  case sizeof(std::uint8_t):
    return *static_cast<const std::uint8_t*>(place);
  case sizeof(std::uint16_t):
    return *static_cast<const std::uint16_t*>(place);
  case sizeof(std::uint32_t):
    return *static_cast<const std::uint32_t*>(place);
  default:
    return *static_cast<const std::uint64_t*>(place);
  }
}

py::object checked(PyObject* made) {
  if (made == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(made);
}

void appendQuoted(std::string& text, const py::object& value) {
  const py::object quoted = checked(PyObject_Repr(value.ptr()));
  Py_ssize_t size = 0;
  const char* const utf8 = PyUnicode_AsUTF8AndSize(quoted.ptr(), &size);
  if (utf8 == nullptr) throw py::error_already_set();
  text.append(utf8, static_cast<std::size_t>(size));
}

void appendRest(std::string& text, std::size_t size, std::size_t shown) {
  if (size > shown) text += " ... " + std::to_string(size - shown) + " more";
}

void appendText(std::string& text, const std::string& stored) {
  py::object value =
      checked(PyUnicode_DecodeUTF8(stored.data(), static_cast<Py_ssize_t>(stored.size()), "surrogateescape"));
  const auto size = static_cast<std::size_t>(PyUnicode_GET_LENGTH(value.ptr()));
  const std::size_t shown = std::min(size, mostCharacters);
  if (shown < size) value = checked(PyUnicode_Substring(value.ptr(), 0, static_cast<Py_ssize_t>(shown)));
  appendQuoted(text, value);
  appendRest(text, size, shown);
}

void appendBytes(std::string& text, const ListOperations& list, void* stored) {
  const std::size_t size = list.size(stored);
  const std::size_t shown = std::min(size, mostBytes);
  const auto* const data = static_cast<const char*>(list.data(stored));
  appendQuoted(text, checked(PyBytes_FromStringAndSize(data, static_cast<Py_ssize_t>(shown))));
  appendRest(text, size, shown);
}

void appendRecord(std::string& text, std::string_view name, const RecordType& type, void* record);

void appendItems(std::string& text, const ListOperations& list, void* stored) {
  const std::size_t size = list.size(stored);
  const std::size_t shown = size > mostItems ? shownItems : size;
  text += '[';
  for (std::size_t i = 0; i < shown; ++i) {
    if (i != 0) text += ", ";
    appendRecord(text, shortName(list.item->name), *list.item, itemAt(list, stored, i));
  }
  appendRest(text, size, shown);
  text += ']';
}

void appendField(std::string& text, const Field& field, void* place) {
  switch (field.kind) {
  case FieldKind::Number:
    text += std::to_string(numberAt(place, field.width));
    return;
  case FieldKind::Text:
    appendText(text, textAt(place));
    return;
  case FieldKind::List:
    appendItems(text, listOperations(field), place);
    return;
  case FieldKind::BlobItems:
    return;
  case FieldKind::Blob:
    appendBytes(text, listOperations(field), place);
    return;
  case FieldKind::Variant: {
    const VariantOperations& variant = variantOperations(field);
    const RecordType& type = *variant.alternatives[variant.index(place)];
    appendRecord(text, shortName(type.name), type, variant.active(place));
    return;
  }
  }
}

void appendRecord(std::string& text, std::string_view name, const RecordType& type, void* record) {
  text += name;
  const char* before = "(";
  forEachField(type, [&](const Field& field) {
    if (field.kind == FieldKind::BlobItems) return;
    text += before;
    text += field.attribute;
    text += '=';
    appendField(text, field, placeOf(record, field));
    before = ", ";
  });
  text += type.attributes->name == nullptr ? "()" : ")";
}

} // namespace

bool sameContent(const RecordType& type, void* left, void* right) {
  bool same = true;
  forEachField(
      type, [&](const Field& field) { same = same && sameField(field, placeOf(left, field), placeOf(right, field)); });
  return same;
}

void copyContent(const RecordType& type, void* to, void* from) {
  forEachField(type, [&](const Field& field) { copyField(field, placeOf(to, field), placeOf(from, field)); });
}

std::string describeContent(std::string_view name, const RecordType& type, void* record) {
  std::string text;
  appendRecord(text, name, type, record);
  return text;
}

std::string_view shortName(const char* name) {
  const std::string_view whole(name);
  return whole.substr(whole.rfind('.') + 1);
}

} // namespace vorlinkit::python
