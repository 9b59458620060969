#pragma once

#include "Asio.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace vorlinkit {

/// Finds the addresses of a host, on a thread of its own: the system's look-up cannot be cancelled and
/// may hang for as long as a name server is silent. The thread of a look-up that is abandoned ends on its own
/// some time later and touches nothing of the session. Owned by the transport; I/O thread.
class NameLookup {
public:
  struct Result {
    std::error_code failure;
    std::vector<asio::ip::tcp::endpoint> endpoints;
  };
  using Done = std::function<void(Result)>;

  NameLookup(asio::any_io_executor executor, std::string host, std::uint16_t port);
  ~NameLookup();
  NameLookup(const NameLookup&) = delete;
  NameLookup& operator=(const NameLookup&) = delete;

  /// One at a time; calls `done` unless it is abandoned. A numeric host needs no look-up: then `done` is called at
  /// once. A thread that an abandoned look-up left behind is waited for instead of starting another one.
  void find(Done done);
  void abandon() noexcept;

private:
  struct Shared;

  void onAnswered();
  std::error_code startUnlessRunning();

  asio::any_io_executor executor_;
  std::shared_ptr<Shared> shared_;
  Done done_;
};

} // namespace vorlinkit
