// Numbers as they stand on the wire: unsigned, most significant byte first, unaligned.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

namespace vorlinkit::commands {

template <typename Number> constexpr Number swappedOnLittleEndian(Number value) noexcept {
  static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big);
  if constexpr (std::endian::native == std::endian::little && sizeof(Number) > 1)
    return std::byteswap(value);
  else
    return value;
}

template <typename Number> Number loadBigEndian(const std::byte* from) noexcept {
  Number value;
  std::memcpy(&value, from, sizeof value);
  return swappedOnLittleEndian(value);
}

template <typename Number> void storeBigEndian(std::byte* to, Number value) noexcept {
  value = swappedOnLittleEndian(value);
  std::memcpy(to, &value, sizeof value);
}

} // namespace vorlinkit::commands
