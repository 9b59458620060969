// The error alternative of every fallible result of the library.
#pragma once

#include <cstdint>
#include <string>

namespace vorlinkit {

/// Class of a failure. The value is one byte.
enum class ErrorCode : std::uint8_t {
  Transport = 1, ///< not connected, connect failed, connection lost, or a frame observer that threw
  Timeout = 2,   ///< no response within the allowed attempts, or no connection within the deadline
  Protocol = 3,  ///< a frame or stream that breaks the protocol, or a response with majorError set
  Decode = 4,    ///< a payload that is shorter than its layout or otherwise unreadable
  Encode = 5,    ///< a payload too large to encode
  Stopped = 6,   ///< the session is being destroyed, or its I/O thread has ended
};

/// What went wrong: a class and a text for people. The text is UTF-8 where the library wrote it; parts
/// that come from the operating system or the machine are passed on byte for byte.
struct Error {
  ErrorCode code{};
  std::string message;
  std::uint32_t majorError = 0; ///< Protocol: why the machine refused the request (ProtocolErrorFlags); else 0

  friend bool operator==(const Error&, const Error&) = default;
};

} // namespace vorlinkit
