#pragma once

#include <vorlinkit/Error.hpp>

#include "Asio.hpp"

#include <cstddef>
#include <expected>
#include <vector>

namespace vorlinkit {

/// All that the framer sees of the transport. I/O thread.
class ITransportWriteChannel {
public:
  ITransportWriteChannel() = default;
  ITransportWriteChannel(const ITransportWriteChannel&) = delete;
  ITransportWriteChannel& operator=(const ITransportWriteChannel&) = delete;
  virtual ~ITransportWriteChannel() = default;

  /// Writes one whole frame; the bytes are kept alive until the write has ended. One write at a time.
  virtual asio::awaitable<std::expected<void, Error>> write(std::vector<std::byte> bytes) = 0;
  /// The executor on which the transport, and everything that writes through it, runs.
  virtual asio::any_io_executor getExecutor() = 0;
};

} // namespace vorlinkit
