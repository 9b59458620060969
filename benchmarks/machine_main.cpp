// bench_machine: prints its port, serves until its standard input ends. One blocking thread a connection.
#include "Machine.hpp"

#include "FrameLayout.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vorlinkit::benchmarks {
namespace {

class Client {
public:
  explicit Client(int socket) : socket_(socket), buffer_(64 * 1024) {}

  void serve() {
    for (;;) {
      const ssize_t count = recv(socket_, buffer_.data() + held_, buffer_.size() - held_, 0);
      if (count <= 0) break;
      held_ += static_cast<std::size_t>(count);
      while (answerOne()) {
      }
    }
    close(socket_);
  }

private:
  bool answerOne() {
    const std::span<const std::byte> bytes(buffer_.data(), held_);
    if (bytes.size() < requestHeader) return false;
    const std::size_t size = layout::readU32(bytes, requestHeader - 4);
    const std::size_t whole = requestHeader + size;
    if (bytes.size() < whole) return false;
    answer(layout::readU16(bytes, layout::commandIdAt), bytes.subspan(requestHeader, size));
    held_ -= whole;
    if (held_ != 0) std::memmove(buffer_.data(), buffer_.data() + whole, held_);
    return true;
  }

  void answer(std::uint16_t commandId, std::span<const std::byte> payload) {
    if (commandId == silentCommand) return;
    const bool streams = commandId == streamCommand;
    respond(commandId, streams ? std::span<const std::byte>() : payload);
    if (streams) stream(layout::readU32(payload, 0), layout::readU32(payload, 4));
  }

  void respond(std::uint16_t commandId, std::span<const std::byte> payload) {
    response_.assign(responseHeader + payload.size(), std::byte{0});
    response_[0] = layout::protocolId0;
    response_[1] = layout::protocolId1;
    response_[2] = layout::version;
    response_[3] = static_cast<std::byte>(MessageType::Response);
    layout::writeU16(response_, layout::headerLengthAt, responseHeader - layout::headerStart);
    layout::writeU16(response_, layout::commandIdAt, commandId);
    layout::writeU32(response_, responseHeader - 4, static_cast<std::uint32_t>(payload.size()));
    std::ranges::copy(payload, response_.begin() + responseHeader);
    put(response_);
  }

  /// Small notifications go out many at a time, so that the sender does not hold the receiver up.
  void stream(std::size_t count, std::size_t size) {
    const auto one = notificationFrame(streamCommand, size);
    if (size != streamedSize_) {
      streamed_.clear();
      do
        streamed_.insert(streamed_.end(), one.begin(), one.end());
      while (streamed_.size() + one.size() <= 64 * 1024);
      streamedSize_ = size;
    }
    const std::size_t atOnce = streamed_.size() / one.size();
    for (; count != 0; count -= std::min(count, atOnce))
      put(std::span(streamed_).first(std::min(count, atOnce) * one.size()));
  }

  void put(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
      const ssize_t count = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return;
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
  }

  int socket_;
  std::vector<std::byte> buffer_;
  std::size_t held_ = 0;
  std::vector<std::byte> response_;
  std::vector<std::byte> streamed_;
  std::size_t streamedSize_ = 0;
};

void acceptAll(int listener) {
  for (;;) {
    const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0) continue;
    const int on = 1;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::thread([accepted] { Client(accepted).serve(); }).detach();
  }
}

} // namespace
} // namespace vorlinkit::benchmarks

int main() {
  using namespace vorlinkit::benchmarks;
  std::uint16_t port = 0;
  const int listener = listenOnLoopback(port);
  std::thread(acceptAll, listener).detach();
  std::printf("%d\n", port);
  std::fflush(stdout);
  char ignored;
  while (read(STDIN_FILENO, &ignored, 1) > 0) {
  }
  _exit(0);
}
