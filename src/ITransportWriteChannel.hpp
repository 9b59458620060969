#pragma once

#include <vorlinkit/Error.hpp>

#include "Asio.hpp"

#include <cstddef>
#include <expected>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace vorlinkit {

/// All that the framer sees of the transport. I/O thread.
class ITransportWriteChannel {
public:
  using Written = std::expected<void, Error>;

  ITransportWriteChannel() = default;
  ITransportWriteChannel(const ITransportWriteChannel&) = delete;
  ITransportWriteChannel& operator=(const ITransportWriteChannel&) = delete;
  virtual ~ITransportWriteChannel() = default;

  /// Writes one whole frame, from the byte `from` on. One write at a time. Yields how it ended; nothing while it is
  /// under way: then `onWritten` is called when it has ended, or the loss of the connection is reported.
  virtual std::optional<Written> write(std::vector<std::byte> frame, std::size_t from) noexcept = 0;
  /// Delivers what has arrived and has not been delivered yet.
  virtual void readArrived() noexcept = 0;
  /// The executor on which the transport, and everything that writes through it, runs.
  virtual asio::any_io_executor getExecutor() = 0;

  void setOnWritten(std::function<void(Written)> onWritten) { onWritten_ = std::move(onWritten); }

protected:
  std::function<void(Written)> onWritten_;
};

} // namespace vorlinkit
