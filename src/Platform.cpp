#include "Platform.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <utility>

// Apple's compilers do not define the name that all others of the family do.
#if defined(__unix__) || defined(__APPLE__)
#define VORLINKIT_POSIX 1
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#endif
#ifdef __linux__
#include <linux/sockios.h>
#endif

namespace vorlinkit::platform {

#ifdef VORLINKIT_POSIX

namespace {

std::atomic<std::uint64_t> generation{0};

using NativeSocket = asio::ip::tcp::socket::native_handle_type;

/// A socket of nobody's yet.
struct OwnedSocket {
  explicit OwnedSocket(NativeSocket native) noexcept : handle(native) {}
  OwnedSocket(const OwnedSocket&) = delete;
  OwnedSocket& operator=(const OwnedSocket&) = delete;
  ~OwnedSocket() {
    if (handle >= 0) ::close(handle);
  }
  NativeSocket handle;
};

/// What cannot be set is left as it is.
void setOption(NativeSocket socket, int level, int name, int value) noexcept {
  ::setsockopt(socket, level, name, &value, sizeof value);
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
  const auto native = socket.native_handle();
  setOption(native, IPPROTO_TCP, TCP_NODELAY, 1);
  setOption(native, SOL_SOCKET, SO_KEEPALIVE, 1);
#if defined(TCP_KEEPIDLE)
  setOption(native, IPPROTO_TCP, TCP_KEEPIDLE, 15);
#elif defined(TCP_KEEPALIVE)
  setOption(native, IPPROTO_TCP, TCP_KEEPALIVE, 15); // Apple's name for it
#endif
#ifdef TCP_KEEPINTVL
  setOption(native, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  setOption(native, IPPROTO_TCP, TCP_KEEPCNT, 3);
#endif
  if (writeTimeout.count() <= 0) return;
  [[maybe_unused]] const auto whole = [](auto duration) {
    constexpr std::chrono::milliseconds::rep most = std::numeric_limits<int>::max();
    return static_cast<int>(std::min<std::chrono::milliseconds::rep>(duration.count(), most));
  };
#if defined(TCP_USER_TIMEOUT)
  setOption(native, IPPROTO_TCP, TCP_USER_TIMEOUT, whole(writeTimeout));
#elif defined(TCP_RXT_CONNDROPTIME)
  setOption(native, IPPROTO_TCP, TCP_RXT_CONNDROPTIME, whole(std::chrono::ceil<std::chrono::seconds>(writeTimeout)));
#endif
}

std::error_code openStream(asio::ip::tcp::socket& socket, asio::ip::tcp protocol) {
#ifdef SOCK_CLOEXEC
  OwnedSocket opened(::socket(protocol.family(), SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  if (opened.handle < 0) return {errno, std::system_category()};
#else
  OwnedSocket opened(::socket(protocol.family(), SOCK_STREAM, IPPROTO_TCP));
  if (opened.handle < 0) return {errno, std::system_category()};
  ::fcntl(opened.handle, F_SETFD, FD_CLOEXEC);
#endif
#ifdef SO_NOSIGPIPE
  setOption(opened.handle, SOL_SOCKET, SO_NOSIGPIPE, 1); // where a write has no flag for it
#endif
  std::error_code failure;
  socket.assign(protocol, opened.handle, failure);
  if (!failure) opened.handle = -1;
  return failure;
}

std::error_code watchForBytesOnly(asio::ip::tcp::socket& socket) {
  std::error_code failure;
  const auto protocol = socket.local_endpoint(failure).protocol();
  if (failure) return failure;
  OwnedSocket released(socket.release(failure));
  if (!failure) socket.assign(protocol, released.handle, failure);
  if (!failure) released.handle = -1;
  return failure;
}

std::size_t unacknowledgedBytes([[maybe_unused]] NativeSocket socket) noexcept {
  // Either way bytes count until the peer has acknowledged them.
  int held = 0;
#if defined(SIOCOUTQ)
  if (::ioctl(socket, SIOCOUTQ, &held) != 0) return 0;
#elif defined(SO_NWRITE)
  socklen_t size = sizeof held;
  if (::getsockopt(socket, SOL_SOCKET, SO_NWRITE, &held, &size) != 0) return 0;
#endif
  return static_cast<std::size_t>(held);
}

std::expected<std::size_t, std::error_code> writeSome(NativeSocket socket, std::span<const std::byte> bytes) noexcept {
#ifdef MSG_NOSIGNAL
  constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
#else
  constexpr int flags = MSG_DONTWAIT; // openStream has set the socket's option instead
#endif
  ssize_t written = 0;
  do
    written = ::send(socket, bytes.data(), bytes.size(), flags);
  while (written < 0 && errno == EINTR);
  if (written >= 0) return static_cast<std::size_t>(written);
  if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
  return std::unexpected(std::error_code(errno, std::system_category()));
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
