// Numbers as they stand on the wire: unsigned, most significant byte first, unaligned.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

namespace vorlinkit::commands {

template <class Number> constexpr Number swapped_on_little_endian(Number value) noexcept {
  static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big);
  if constexpr (std::endian::native == std::endian::little && sizeof(Number) > 1)
    return std::byteswap(value);
  else
    return value;
}

template <class Number> Number load_big_endian(const std::byte* from) noexcept {
  Number value;
  std::memcpy(&value, from, sizeof value);
  return swapped_on_little_endian(value);
}

template <class Number> void store_big_endian(std::byte* to, Number value) noexcept {
  value = swapped_on_little_endian(value);
  std::memcpy(to, &value, sizeof value);
}

} // namespace vorlinkit::commands
