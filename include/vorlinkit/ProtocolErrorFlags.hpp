#pragma once

#include <cstdint>
#include <string>

namespace vorlinkit {

/// The named conditions in a response header. The same bits serve in majorError, with which the machine
/// refuses a request, and in minorError, with which it accepts it but warns; only bit 0 has two names.
enum class ProtocolErrorFlags : std::uint32_t {
  HeaderLengthIncorrect = 0x00000001, ///< in minorError: UnknownRequestVersion
  UnknownRequestVersion = 0x00000001,
  UnsupportedHeaderType = 0x00000002,
  UnexpectedHeaderType = 0x00000004,
  UnsupportedCommandId = 0x00000008,
  DataLengthMismatch = 0x00000010,
  ExclusiveControlRequired = 0x00000020,
  ControlBlocked = 0x00000040,
  AccessKeyIncorrect = 0x00000080,
  ClientIdRequired = 0x00000100,
  IncorrectClientId = 0x00000200,
};

/// The names of the set bits in ascending order, e.g. "ControlBlocked (0x00000040)", joined by " | ".
/// Bits without a name are left out; "Unknown error" if nothing remains. `isMajor` picks bit 0's name.
std::string protocolErrorsToString(std::uint32_t flags, bool isMajor);

} // namespace vorlinkit
