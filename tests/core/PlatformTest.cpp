// What the library asks of the operating system, on this one and in the form that Apple's need.
#include "Platform.hpp"

#include <gmock/gmock.h>

#include <csignal>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vorlinkit::apple_platform {
std::uint64_t processGeneration() noexcept;
std::thread startThread(std::function<void()> body);
std::error_code openStream(asio::ip::tcp::socket& socket, asio::ip::tcp protocol);
void prepareConnection(asio::ip::tcp::socket& socket, std::chrono::milliseconds writeTimeout) noexcept;
std::size_t unacknowledgedBytes(asio::ip::tcp::socket::native_handle_type socket) noexcept;
} // namespace vorlinkit::apple_platform

namespace vorlinkit::test {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

struct System {
  const char* name;
  decltype(&platform::processGeneration) processGeneration;
  decltype(&platform::startThread) startThread;
  decltype(&platform::openStream) openStream;
  decltype(&platform::prepareConnection) prepareConnection;
  decltype(&platform::unacknowledgedBytes) unacknowledgedBytes;
  int keepIdle, stallOption, stallOfLittleMoreThanOneSecond;
};
const System systems[] = {
    {"this one", platform::processGeneration, platform::startThread, platform::openStream, platform::prepareConnection,
     platform::unacknowledgedBytes, TCP_KEEPIDLE, TCP_USER_TIMEOUT, 1001},
    {"Apple's", apple_platform::processGeneration, apple_platform::startThread, apple_platform::openStream,
     apple_platform::prepareConnection, apple_platform::unacknowledgedBytes, TCP_KEEPIDLE, TCP_LINGER2, 2},
};

class EverySystem : public testing::TestWithParam<System> {};
INSTANTIATE_TEST_SUITE_P(Platform, EverySystem, testing::ValuesIn(systems), [](const auto& instance) {
  return instance.index == 0 ? std::string("Here") : std::string("Apple");
});

int option(const tcp::socket& socket, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(const_cast<tcp::socket&>(socket).native_handle(), level, name, &value, &size), 0) << name;
  return value;
}

TEST_P(EverySystem, AForkIsAnotherGeneration) {
  const auto parent = GetParam().processGeneration();
  const pid_t child = ::fork();
  if (child == 0) ::_exit(GetParam().processGeneration() != parent ? 0 : 1);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(GetParam().processGeneration(), parent);
}

TEST_P(EverySystem, AThreadTakesNoSignals) {
  sigset_t seen;
  sigemptyset(&seen);
  GetParam().startThread([&] { pthread_sigmask(SIG_SETMASK, nullptr, &seen); }).join();
  for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGUSR1})
    EXPECT_TRUE(sigismember(&seen, signal)) << signal;
  sigset_t ours;
  pthread_sigmask(SIG_SETMASK, nullptr, &ours);
  EXPECT_FALSE(sigismember(&ours, SIGINT)) << "the caller's own mask is as it was";
}

TEST_P(EverySystem, ASocketIsNotInheritedFromTheStartAndTakesEveryUse) {
  asio::io_context context;
  for (const auto protocol : {tcp::v4(), tcp::v6()}) {
    tcp::socket socket(context);
    const auto failure = GetParam().openStream(socket, protocol);
    if (protocol == tcp::v6() && failure == asio::error::address_family_not_supported) continue;
    ASSERT_FALSE(failure);
    EXPECT_TRUE(::fcntl(socket.native_handle(), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(GetParam().openStream(socket, protocol), asio::error::already_open);
  }
  tcp::acceptor acceptor(context, {asio::ip::address_v4::loopback(), 0});
  tcp::socket ours(context), theirs(context);
  ASSERT_FALSE(GetParam().openStream(ours, tcp::v4()));
  std::error_code connected = asio::error::would_block;
  ours.async_connect(acceptor.local_endpoint(), [&](std::error_code failure) { connected = failure; });
  acceptor.async_accept(theirs, [](std::error_code) {});
  context.run();
  EXPECT_FALSE(connected) << connected.message();

  GetParam().prepareConnection(ours, 1001ms);
  EXPECT_EQ(option(ours, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(option(ours, SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(ours, IPPROTO_TCP, GetParam().keepIdle), 15);
  EXPECT_EQ(option(ours, IPPROTO_TCP, TCP_KEEPINTVL), 5);
  EXPECT_EQ(option(ours, IPPROTO_TCP, TCP_KEEPCNT), 3);
  EXPECT_EQ(option(ours, IPPROTO_TCP, GetParam().stallOption), GetParam().stallOfLittleMoreThanOneSecond);
  EXPECT_EQ(GetParam().unacknowledgedBytes(ours.native_handle()), 0U);
}

TEST(ApplePlatform, AsksForNoSignalWhereAWriteCannot) {
  asio::io_context context;
  tcp::socket socket(context);
  ASSERT_FALSE(apple_platform::openStream(socket, tcp::v4()));
  EXPECT_EQ(option(socket, SOL_SOCKET, SO_PRIORITY), 1) << "what stands for SO_NOSIGPIPE here";
}

} // namespace
} // namespace vorlinkit::test
