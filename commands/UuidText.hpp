#pragma once

#include <cstddef>
#include <string>

namespace vorlinkit::commands {

/// The text form of 16 bytes in wire order: upper-case hexadecimal in groups of 8-4-4-4-12.
std::string uuidText(const std::byte* bytes);

} // namespace vorlinkit::commands
