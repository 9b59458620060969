#include "Platform.hpp"

#ifdef _WIN32

#include <utility>

namespace vorlinkit::platform {

std::uint64_t processGeneration() noexcept { return 0; }

std::thread startThread(std::function<void()> body) { return std::thread(std::move(body)); }

void prepareConnection(asio::ip::tcp::socket& socket, std::chrono::milliseconds) noexcept {
  std::error_code ignored;
  socket.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket.set_option(asio::socket_base::keep_alive(true), ignored);
}

std::error_code openStream(asio::ip::tcp::socket& socket, asio::ip::tcp protocol) {
  constexpr DWORD flags = WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT;
  const SOCKET opened = ::WSASocketW(protocol.family(), SOCK_STREAM, IPPROTO_TCP, nullptr, 0, flags);
  if (opened == INVALID_SOCKET) return {::WSAGetLastError(), std::system_category()};
  std::error_code failure;
  socket.assign(protocol, opened, failure);
  if (failure) ::closesocket(opened);
  return failure;
}

std::error_code watchForBytesOnly(asio::ip::tcp::socket&) { return {}; }

std::size_t unacknowledgedBytes(asio::ip::tcp::socket::native_handle_type) noexcept { return 0; }

// The socket does not block: the transport has set it so.
std::expected<std::size_t, std::error_code> writeSome(asio::ip::tcp::socket::native_handle_type socket,
                                                      std::span<const std::byte> bytes) noexcept {
  const int written = ::send(socket, reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()), 0);
  if (written >= 0) return static_cast<std::size_t>(written);
  if (WSAGetLastError() == WSAEWOULDBLOCK) return 0;
  return std::unexpected(std::error_code(WSAGetLastError(), std::system_category()));
}

} // namespace vorlinkit::platform

#endif
