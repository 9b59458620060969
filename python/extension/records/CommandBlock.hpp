// What a command gives the module: its id, record classes and functions, as a table that the generated blocks
// declare.
#pragma once

#include "records/RecordType.hpp"

#include <vorlinkit/Error.hpp>
#include <vorlinkit/commands/FieldCodedValues.hpp>
#include <vorlinkit/commands/PayloadMemory.hpp>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <new>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace vorlinkit::python {

using EncodeResult = std::expected<void, Error>;

// The functions of the catalogue with their record type taken away.
using Encode = EncodeResult (*)(const void* record, commands::PayloadMemory& memory);
using Decode = Error (*)(std::span<const std::byte> payload, void* memory); ///< an empty message: decoded
using Render = std::string (*)(const void* record);
using DescribeCode = std::string (*)(std::uint16_t code);
using ListCodes = commands::FieldCodedValues (*)();

/// One function of the module. The documentation begins with its signature, from which its errors are worded.
template <typename Act> struct Function {
  const char* name;
  const char* doc;
  RecordType* record; ///< that it takes or makes; null where none is involved
  Act act;
};

using Arguments = PyObject* const*;
using EntryPoint = PyObject* (*)(PyObject* module, Arguments arguments, Py_ssize_t count, PyObject* names);

// How the interpreter calls them: arguments in a row, the names of the last ones in a tuple (or null).
PyObject* callEncode(const Function<Encode>& function, Arguments arguments, Py_ssize_t count, PyObject* names);
PyObject* callDecode(const Function<Decode>& function, Arguments arguments, Py_ssize_t count, PyObject* names);
PyObject* callRender(const Function<Render>& function, Arguments arguments, Py_ssize_t count, PyObject* names);
PyObject* callDescribeCode(const Function<DescribeCode>& function, Arguments arguments, Py_ssize_t count,
                           PyObject* names);
PyObject* callListCodes(const Function<ListCodes>& function, Arguments arguments, Py_ssize_t count, PyObject* names);

/// One entry of a command's block: a number, a class or a function.
struct BlockEntry {
  const char* name = nullptr; ///< of a number or a function
  long number = 0;
  RecordType* record = nullptr;
  EntryPoint function = nullptr;
  const char* doc = nullptr;
  PyMethodDef definition{}; ///< of the function, filled in when it is registered
};

/// The entries of every family of commands, in the order in which they are registered; generated.
std::vector<std::span<BlockEntry>> commandBlocks();

// What the generated tables are written with.

template <auto WritePayload, typename Record>
EncodeResult writeRecord(const void* record, commands::PayloadMemory& memory) {
  return WritePayload(*static_cast<const Record*>(record), memory);
}

template <auto DecodePayload, typename Record> Error decodeRecord(std::span<const std::byte> payload, void* memory) {
  std::expected<Record, Error> record = DecodePayload(payload);
  if (!record) return std::move(record.error());
  ::new (memory) Record(*std::move(record));
  return {};
}

template <auto RenderText, typename Record> std::string renderRecord(const void* record) {
  return RenderText(*static_cast<const Record*>(record));
}

/// The interpreter hands a function no data of its own, hence one small entry point for each.
template <const auto& Called> PyObject* enter(PyObject*, Arguments arguments, Py_ssize_t count, PyObject* names) {
  using Act = decltype(Called.act);
  if constexpr (std::is_same_v<Act, Encode>)
    return callEncode(Called, arguments, count, names);
  else if constexpr (std::is_same_v<Act, Decode>)
    return callDecode(Called, arguments, count, names);
  else if constexpr (std::is_same_v<Act, Render>)
    return callRender(Called, arguments, count, names);
  else if constexpr (std::is_same_v<Act, DescribeCode>)
    return callDescribeCode(Called, arguments, count, names);
  else
    return callListCodes(Called, arguments, count, names);
}

constexpr BlockEntry commandId(const char* name, std::uint16_t id) { return {.name = name, .number = id}; }

constexpr BlockEntry recordClass(RecordType& type) { return {.record = &type}; }

template <const auto& Called> constexpr BlockEntry moduleFunction() {
  return {.name = Called.name, .function = enter<Called>, .doc = Called.doc};
}

} // namespace vorlinkit::python
