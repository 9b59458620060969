#pragma once

#include "Asio.hpp"
#include "Wakeup.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace vorlinkit {

/// Finds the addresses of a host, on a thread of its own: the system's look-up cannot be cancelled and
/// may hang for as long as a name server is silent. A look-up that is abandoned answers at once; its
/// thread ends on its own some time later and touches nothing of the session. I/O thread.
class NameLookup {
public:
  struct Result {
    std::error_code failure;
    std::vector<asio::ip::tcp::endpoint> endpoints;
  };

  NameLookup(asio::any_io_executor executor, std::string host, std::uint16_t port);
  ~NameLookup();
  NameLookup(const NameLookup&) = delete;
  NameLookup& operator=(const NameLookup&) = delete;

  /// One at a time. A numeric host needs no look-up and is answered without waiting; a thread that an
  /// abandoned look-up left behind is waited for instead of starting another one.
  asio::awaitable<Result> find();
  /// Makes a running `find` yield operation-aborted.
  void abandon();

private:
  struct Shared;

  std::error_code startUnlessRunning();

  asio::any_io_executor executor_;
  std::shared_ptr<Shared> shared_;
  std::shared_ptr<Wakeup> answered_;
  bool abandoned_ = false;
};

} // namespace vorlinkit
