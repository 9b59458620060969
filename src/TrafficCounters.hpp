#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vorlinkit {

/// What has passed through one framer. Counted on the I/O thread, readable on any.
struct TrafficCounters {
  using Counter = std::atomic<std::uint64_t>;
  /// Command ids 0 to 250; ids above are in the totals only.
  using PerCommand = std::array<Counter, 251>;

  Counter bytesReceived{}; ///< lengths of all complete frames cut from the stream
  Counter bytesSent{};     ///< lengths of all frames handed to the transport
  Counter requestsTimedOut{};
  Counter timeoutRetries{};
  PerCommand bytesReceivedOf{}; ///< frames that decoded
  PerCommand bytesSentOf{};
  PerCommand timeoutsOf{};
  PerCommand retriesOf{};

  /// Only the I/O thread writes, so a load and a store will do where a read-modify-write would be dear.
  static void add(Counter& counter, std::uint64_t amount) {
    counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
  }
  static void add(PerCommand& counters, std::uint16_t commandId, std::uint64_t amount) {
    if (commandId < counters.size()) add(counters[commandId], amount);
  }
};

} // namespace vorlinkit
