#include "records/CommandBlock.hpp"

#include "bindings.hpp"
#include "records/Conversions.hpp"
#include "records/RecordErrors.hpp"
#include "records/RecordMethods.hpp"
#include "records/RecordObject.hpp"

#include <cstring>
#include <limits>
#include <memory>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// The one argument of a function, by position or by name; null if it was called otherwise.
PyObject* onlyArgument(const char* name, Arguments arguments, Py_ssize_t count, PyObject* names) {
  const Py_ssize_t named = names == nullptr ? 0 : PyTuple_GET_SIZE(names);
  if (count + named != 1) return nullptr;
  if (named == 1 && PyUnicode_CompareWithASCIIString(PyTuple_GET_ITEM(names, 0), name) != 0) return nullptr;
  return arguments[0];
}

/// The name of the argument, read from the documentation: "function(name: type) -> result".
std::string argumentName(const char* doc) {
  const char* opening = std::strchr(doc, '(') + 1;
  return {opening, std::strchr(opening, ':')};
}

PyObject* onlyArgument(const char* docOfFunction, const Arguments arguments, Py_ssize_t count, PyObject* names,
                       PyTypeObject* type) {
  PyObject* argument = names == nullptr && count == 1
                           ? arguments[0]
                           : onlyArgument(argumentName(docOfFunction).c_str(), arguments, count, names);
  return argument != nullptr && (type == nullptr || PyObject_TypeCheck(argument, type)) ? argument : nullptr;
}

PyObject* refuse(const char* doc, Arguments arguments, Py_ssize_t count, PyObject* names) {
  setArgumentError(doc, arguments, count, names);
  return nullptr;
}

PyObject* fail(const char* prefix, const Error& error) {
  const std::string text = prefix + error.message;
  PyErr_SetString(PyExc_RuntimeError, text.c_str());
  return nullptr;
}

PyObject* toText(const std::string& text) {
  return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
}

/// A payload is written straight into the object that Python gets: large ones are not copied once more.
class BytesMemory final : public commands::PayloadMemory {
public:
  std::byte* allocate(std::size_t size) override {
    bytes_ = py::reinterpret_steal<py::object>(PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(size)));
    if (!bytes_) throw py::error_already_set();
    return reinterpret_cast<std::byte*>(PyBytes_AS_STRING(bytes_.ptr()));
  }
  PyObject* release() { return bytes_.release().ptr(); }

private:
  py::object bytes_;
};

} // namespace

PyObject* callEncode(const Function<Encode>& function, Arguments arguments, Py_ssize_t count, PyObject* names) {
  return guarded([&]() -> PyObject* {
    PyObject* request = onlyArgument(function.doc, arguments, count, names, function.record->pythonType);
    if (request == nullptr) return refuse(function.doc, arguments, count, names);
    BytesMemory payload;
    const EncodeResult encoded = function.act(asRecord(request)->record, payload);
    if (!encoded) return fail("Encode failed: ", encoded.error());
    return payload.release();
  });
}

PyObject* callDecode(const Function<Decode>& function, Arguments arguments, Py_ssize_t count, PyObject* names) {
  return guarded([&]() -> PyObject* {
    PyObject* data = onlyArgument(function.doc, arguments, count, names, nullptr);
    if (data == nullptr || !PyBytes_Check(data)) return refuse(function.doc, arguments, count, names);
    const std::span payload(PyBytes_AS_STRING(data), static_cast<std::size_t>(PyBytes_GET_SIZE(data)));
    // Decoded into the memory that the object will own.
    struct Discard {
      void operator()(RootAnchor* root) const noexcept { discardRoot(root); }
    };
    std::unique_ptr<RootAnchor, Discard> root(allocateRoot(*function.record));
    const Error error = function.act(std::as_bytes(payload), root->record());
    if (!error.message.empty()) return fail("Decode failed: ", error);
    RootAnchor* decoded = root.release();
    decoded->holders = 1;
    PyObject* object = newView(*function.record, decoded->record(), *decoded);
    if (object == nullptr) release(decoded);
    return object;
  });
}

PyObject* callRender(const Function<Render>& function, Arguments arguments, Py_ssize_t count, PyObject* names) {
  return guarded([&]() -> PyObject* {
    PyObject* record = onlyArgument(function.doc, arguments, count, names, function.record->pythonType);
    if (record == nullptr) return refuse(function.doc, arguments, count, names);
    return toText(function.act(asRecord(record)->record));
  });
}

PyObject* callDescribeCode(const Function<DescribeCode>& function, Arguments arguments, Py_ssize_t count,
                           PyObject* names) {
  return guarded([&]() -> PyObject* {
    PyObject* argument = onlyArgument(function.doc, arguments, count, names, nullptr);
    const auto code =
        argument == nullptr ? std::nullopt : numberFrom(argument, std::numeric_limits<std::uint16_t>::max());
    if (!code) return refuse(function.doc, arguments, count, names);
    return toText(function.act(static_cast<std::uint16_t>(*code)));
  });
}

PyObject* callListCodes(const Function<ListCodes>& function, Arguments arguments, Py_ssize_t count, PyObject* names) {
  return guarded([&]() -> PyObject* {
    if (count != 0 || (names != nullptr && PyTuple_GET_SIZE(names) != 0))
      return refuse(function.doc, arguments, count, names);
    return toPython(function.act()).release().ptr();
  });
}

namespace {

py::object makeFunction(BlockEntry& entry, py::handle module, py::handle moduleName) {
  const auto call = reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(entry.function));
  entry.definition = {entry.name, call, METH_FASTCALL | METH_KEYWORDS, entry.doc};
  auto function =
      py::reinterpret_steal<py::object>(PyCFunction_NewEx(&entry.definition, module.ptr(), moduleName.ptr()));
  if (!function) throw py::error_already_set();
  return function;
}

} // namespace

void registerCommandBlocks(py::module_& module) {
  const auto moduleName = py::object(module.attr("__name__"));
  registerRebuild(module);
  for (const std::span<BlockEntry> family : commandBlocks()) {
    for (BlockEntry& entry : family)
      if (entry.record != nullptr)
        registerRecord(module, *entry.record);
      else if (entry.function != nullptr)
        py::setattr(module, entry.name, makeFunction(entry, module, moduleName));
      else
        py::setattr(module, entry.name, py::int_(entry.number));
  }
}

} // namespace vorlinkit::python
