#include "Machine.hpp"

#include "FrameLayout.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vorlinkit::benchmarks {

namespace {

void require(bool good, const char* what) {
  if (good) return;
  std::perror(what);
  std::_Exit(2);
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

std::vector<std::byte> frame(MessageType type, std::uint16_t commandId, std::size_t payloadSize) {
  const auto typeByte = static_cast<std::byte>(type);
  const std::size_t dataLengthAt = layout::headerLength(typeByte);
  std::vector<std::byte> bytes(layout::wholeHeader(dataLengthAt) + payloadSize);
  bytes[0] = layout::protocolId0;
  bytes[1] = layout::protocolId1;
  bytes[2] = layout::version;
  bytes[3] = typeByte;
  layout::writeU16(bytes, layout::headerLengthAt, static_cast<std::uint16_t>(dataLengthAt));
  layout::writeU16(bytes, layout::commandIdAt, commandId);
  layout::writeU32(bytes, dataLengthAt, static_cast<std::uint32_t>(payloadSize));
  return bytes;
}

} // namespace

std::vector<std::byte> requestFrame(std::uint16_t commandId, std::span<const std::byte> payload) {
  auto bytes = frame(MessageType::Request, commandId, payload.size());
  std::ranges::copy(payload, bytes.begin() + requestHeader);
  return bytes;
}

std::vector<std::byte> notificationFrame(std::uint16_t commandId, std::size_t payloadSize) {
  return frame(MessageType::Notification, commandId, payloadSize);
}

std::vector<std::byte> streamPayload(std::uint32_t count, std::uint32_t size) {
  std::vector<std::byte> payload(8);
  layout::writeU32(payload, 0, count);
  layout::writeU32(payload, 4, size);
  return payload;
}

Machine::Machine() {
  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  process_ = fork();
  require(process_ >= 0, "fork");
  if (process_ == 0) {
    dup2(ends[1], STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    execl(BENCH_MACHINE, BENCH_MACHINE, static_cast<char*>(nullptr));
    require(false, BENCH_MACHINE);
  }
  close(ends[1]);
  line_ = ends[0];
  char text[16]{};
  require(read(line_, text, sizeof text - 1) > 0, "bench_machine does not start");
  port_ = static_cast<std::uint16_t>(std::stoi(text));
}

Machine::~Machine() {
  close(line_);
  waitpid(process_, nullptr, 0);
}

int connectBlocking(std::uint16_t port) {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  require(connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
  const int on = 1;
  setsockopt(made, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return made;
}

int listenOnLoopback(std::uint16_t& port, int backlog) {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(port);
  socklen_t size = sizeof address;
  require(bind(made, reinterpret_cast<const sockaddr*>(&address), size) == 0, "bind");
  require(listen(made, backlog) == 0, "listen");
  getsockname(made, reinterpret_cast<sockaddr*>(&address), &size);
  port = ntohs(address.sin_port);
  return made;
}

void sendAll(int socket, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    require(count > 0, "send");
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
}

std::size_t receiveSome(int socket, std::span<std::byte> buffer) {
  const ssize_t count = recv(socket, buffer.data(), buffer.size(), 0);
  require(count > 0, "recv");
  return static_cast<std::size_t>(count);
}

void receiveAll(int socket, std::span<std::byte> buffer) {
  while (!buffer.empty())
    buffer = buffer.subspan(receiveSome(socket, buffer));
}

} // namespace vorlinkit::benchmarks
