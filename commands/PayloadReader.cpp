#include "PayloadReader.hpp"

#include <cstring>

namespace vorlinkit::commands {

ReadFailure read_text(PayloadCursor& cursor, std::string& text) {
  const auto length = cursor.remaining();
  const void* zero = length ? std::memchr(cursor.at, 0, length) : nullptr;
  if (!zero) [[unlikely]]
    return ReadFailure::NoTerminator;
  const auto* terminator = static_cast<const std::byte*>(zero);
  text.assign(reinterpret_cast<const char*>(cursor.at), static_cast<std::size_t>(terminator - cursor.at));
  cursor.at = terminator + 1;
  return ReadFailure::None;
}

} // namespace vorlinkit::commands
