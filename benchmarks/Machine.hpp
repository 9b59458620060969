// The other end of the benchmarks: a plain blocking server in a process of its own, so that its work is
// not counted as the client's. It answers as fast as a server can and knows nothing of the catalogue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vorlinkit::benchmarks {

inline constexpr std::uint16_t echoCommand = 1;   ///< answered with the payload of the request
inline constexpr std::uint16_t silentCommand = 2; ///< never answered
/// Answered, then followed by notifications of the same id. Payload: count and payload size of each, u32.
inline constexpr std::uint16_t streamCommand = 3;

inline constexpr std::size_t requestHeader = 18;
inline constexpr std::size_t responseHeader = 20;
inline constexpr std::size_t notificationHeader = 12;

std::vector<std::byte> requestFrame(std::uint16_t commandId, std::span<const std::byte> payload);
std::vector<std::byte> notificationFrame(std::uint16_t commandId, std::size_t payloadSize);
std::vector<std::byte> streamPayload(std::uint32_t count, std::uint32_t size);

/// The server process; it ends with this object, or with the process that holds it. It inherits the
/// processor that its maker has been confined to.
class Machine {
public:
  Machine();
  ~Machine();
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  std::uint16_t port() const { return port_; }

private:
  int process_ = -1;
  int line_ = -1; // its standard input and output
  std::uint16_t port_ = 0;
};

// Blocking sockets of the peers. They end the program with a message when something fails.
int connectBlocking(std::uint16_t port);
int listenOnLoopback(std::uint16_t& port, int backlog = 128);
void sendAll(int socket, std::span<const std::byte> bytes);
std::size_t receiveSome(int socket, std::span<std::byte> buffer);
void receiveAll(int socket, std::span<std::byte> buffer);

} // namespace vorlinkit::benchmarks
