#include "ReadFailure.hpp"

namespace vorlinkit::commands {

static const char* textOf(ReadFailure failure) {
  switch (failure) {
  case ReadFailure::None:
    break;
  case ReadFailure::NoUint8:
    return "Not enough bytes for uint8";
  case ReadFailure::NoUint16:
    return "Not enough bytes for uint16";
  case ReadFailure::NoUint32:
    return "Not enough bytes for uint32";
  case ReadFailure::NoUuid:
    return "Not enough bytes for uuid";
  case ReadFailure::NoTerminator:
    return "String not null-terminated";
  case ReadFailure::UnknownVariant:
    return "Unknown variant";
  }
  return "";
}

Error decodeError(ReadFailure failure) { return {ErrorCode::Decode, textOf(failure)}; }

} // namespace vorlinkit::commands
