// Where a payload is written, for callers that own the memory.
#pragma once

#include <cstddef>

namespace vorlinkit::commands {

/// Memory for one payload, given when its size is known. An encoder calls `allocate` once, on the caller's thread,
/// and then writes every byte. What `allocate` throws passes through the encoder.
class PayloadMemory {
public:
  virtual std::byte* allocate(std::size_t size) = 0;

protected:
  PayloadMemory() = default;
  PayloadMemory(const PayloadMemory&) = default;
  PayloadMemory& operator=(const PayloadMemory&) = default;
  ~PayloadMemory() = default;
};

} // namespace vorlinkit::commands
