// What the calls of a session that wait have in common.
#pragma once

#include "interpreter/InterpreterLock.hpp"

#include <pybind11/pybind11.h>

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vorlinkit::python {

constexpr std::string_view notAwaitable =
    "The session can no longer be used: the interpreter is exiting, or the session was made before a fork";

inline std::string fromCallback(const char* method) {
  return std::string(method) +
         " was called from a callback of its own session, on the thread that would bring the answer; "
         "call it from another thread, for example through a queue.Queue";
}

inline std::span<const std::byte> viewOf(const pybind11::bytes& bytes) {
  return {reinterpret_cast<const std::byte*>(PyBytes_AS_STRING(bytes.ptr())),
          static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr()))};
}

/// Starts something in the core and waits for what comes of it, with the interpreter lock given up. Nothing when
/// the interpreter is on its way out.
template <typename Start> auto awaitOutcome(Start&& start) -> std::optional<decltype(start().get())> {
  InterpreterRelease unlocked;
  if (!unlocked) return std::nullopt;
  auto future = start();
  if (!unlocked.wait(future)) return std::nullopt;
  return future.get();
}

} // namespace vorlinkit::python
