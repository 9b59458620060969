#include "Platform.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <utility>

#ifdef __unix__
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#endif
#ifdef __linux__
#include <linux/sockios.h>
#endif

namespace vorlinkit::platform {

#ifdef __unix__

namespace {

std::atomic<std::uint64_t> generation{0};

template <int Level, int Name> void setOption(asio::ip::tcp::socket& socket, int value) noexcept {
  std::error_code ignored;
  socket.set_option(asio::detail::socket_option::integer<Level, Name>(value), ignored);
}

} // namespace

std::uint64_t processGeneration() noexcept {
  [[maybe_unused]] static const int registered =
      pthread_atfork(nullptr, nullptr, [] { generation.fetch_add(1, std::memory_order_relaxed); });
  return generation.load(std::memory_order_relaxed);
}

std::thread startThread(std::function<void()> body) {
  // A new thread inherits the mask of the one that starts it.
  struct AllBlocked {
    AllBlocked() noexcept {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~AllBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    sigset_t before;
  } blocked;
  return std::thread(std::move(body));
}

void prepareConnection(asio::ip::tcp::socket& socket, std::chrono::milliseconds writeTimeout) noexcept {
  std::error_code ignored;
  socket.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket.set_option(asio::socket_base::keep_alive(true), ignored);
#ifdef TCP_KEEPIDLE
  setOption<IPPROTO_TCP, TCP_KEEPIDLE>(socket, 15);
  setOption<IPPROTO_TCP, TCP_KEEPINTVL>(socket, 5);
  setOption<IPPROTO_TCP, TCP_KEEPCNT>(socket, 3);
#endif
#ifdef TCP_USER_TIMEOUT
  if (writeTimeout.count() > 0) {
    constexpr std::chrono::milliseconds::rep most = std::numeric_limits<int>::max();
    setOption<IPPROTO_TCP, TCP_USER_TIMEOUT>(socket, static_cast<int>(std::min(writeTimeout.count(), most)));
  }
#endif
  fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
}

std::error_code watchForBytesOnly(asio::ip::tcp::socket& socket) {
  std::error_code failure;
  const auto protocol = socket.local_endpoint(failure).protocol();
  if (failure) return failure;
  const auto handle = socket.release(failure);
  if (!failure) socket.assign(protocol, handle, failure);
  return failure;
}

std::size_t unacknowledgedBytes([[maybe_unused]] asio::ip::tcp::socket::native_handle_type socket) noexcept {
#ifdef SIOCOUTQ
  int bytes = 0;
  if (::ioctl(socket, SIOCOUTQ, &bytes) == 0) return static_cast<std::size_t>(bytes);
#endif
  return 0;
}

std::expected<std::size_t, std::error_code> writeSome(asio::ip::tcp::socket::native_handle_type socket,
                                                      std::span<const std::byte> bytes) noexcept {
#ifdef MSG_NOSIGNAL
  constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
#else
  constexpr int flags = MSG_DONTWAIT; // where there is a socket option instead, asio has set it
#endif
  ssize_t written = 0;
  do
    written = ::send(socket, bytes.data(), bytes.size(), flags);
  while (written < 0 && errno == EINTR);
  if (written >= 0) return static_cast<std::size_t>(written);
  if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
  return std::unexpected(std::error_code(errno, std::system_category()));
}

#else

std::uint64_t processGeneration() noexcept { return 0; }

std::thread startThread(std::function<void()> body) { return std::thread(std::move(body)); }

void prepareConnection(asio::ip::tcp::socket& socket, std::chrono::milliseconds) noexcept {
  std::error_code ignored;
  socket.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket.set_option(asio::socket_base::keep_alive(true), ignored);
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

#endif

bool connectedToItself(const asio::ip::tcp::socket& socket) noexcept {
  std::error_code unknown;
  const auto local = socket.local_endpoint(unknown);
  if (unknown) return false;
  const auto remote = socket.remote_endpoint(unknown);
  return !unknown && local == remote;
}

} // namespace vorlinkit::platform
