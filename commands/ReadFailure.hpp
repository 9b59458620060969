// Why a payload could not be read: one byte while reading, an Error once at the end.
#pragma once

#include <vorlinkit/Error.hpp>

#include <cstdint>

namespace vorlinkit::commands {

enum class ReadFailure : std::uint8_t {
  None,
  NoUint8,
  NoUint16,
  NoUint32, ///< also for either half of a 64-bit number
  NoUuid,
  NoTerminator,
  UnknownVariant,
};

/// The Error of a failure that is not None.
Error decodeError(ReadFailure failure);

} // namespace vorlinkit::commands
