// From Python values to what records hold. All of this may run Python code, which may write any record.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vorlinkit::python {

/// An int of 0 to `maximum`, or what Python makes one of (`__index__`, `__int__`), floats excepted: as the binding
/// library converts the arguments of all other calls. Leaves no Python error.
std::optional<std::uint64_t> numberFrom(PyObject* value, std::uint64_t maximum);

/// The bytes of a str, bytes or bytearray as the machine keeps them: UTF-8, where bytes that were none survive a round
/// trip. Leaves no Python error. To be used before anything else is done with the interpreter.
class TextView {
public:
  explicit TextView(PyObject* value);

  bool good() const { return bytes_ != nullptr; }
  std::string_view text() const { return {bytes_, static_cast<std::size_t>(size_)}; }

private:
  void encode(PyObject* value);
  void take(PyObject* bytes);

  pybind11::object encoded_;
  const char* bytes_ = nullptr;
  Py_ssize_t size_ = 0;
};

/// A tuple of the elements of any sequence but text, held so that nothing can free them. Nothing if `value` is no
/// sequence; throws what a sequence class raises.
std::optional<pybind11::object> elementsFrom(PyObject* value);

/// A buffer of bytes, given back when it is no longer needed. Leaves no Python error.
class BytesView {
public:
  explicit BytesView(PyObject* value);
  BytesView(const BytesView&) = delete;
  BytesView& operator=(const BytesView&) = delete;
  ~BytesView();

  bool good() const { return good_; }
  const char* data() const { return static_cast<const char*>(buffer_.buf); }
  std::size_t size() const { return static_cast<std::size_t>(buffer_.len); }

private:
  Py_buffer buffer_{};
  bool good_;
};

} // namespace vorlinkit::python
