#include "RoundTripPeers.hpp"

#include "Machine.hpp"

#include <utility>

#include <unistd.h>

namespace vorlinkit::benchmarks {

namespace {

void connectTo(asio::ip::tcp::socket& socket, std::uint16_t port) {
  socket.connect({asio::ip::address_v4::loopback(), port});
  socket.set_option(asio::ip::tcp::no_delay(true));
}

} // namespace

BlockingPeer::BlockingPeer(std::uint16_t port, std::span<const std::byte> payload)
    : socket_(connectBlocking(port)), payload_(payload.begin(), payload.end()),
      answer_(responseHeader + payload.size()) {}

BlockingPeer::~BlockingPeer() { close(socket_); }

void BlockingPeer::ask() {
  sendAll(socket_, requestFrame(echoCommand, payload_));
  receiveAll(socket_, answer_);
}

CoroutinePeer::CoroutinePeer(std::uint16_t port, std::span<const std::byte> payload)
    : socket_(context_), payload_(payload.begin(), payload.end()), answer_(responseHeader + payload.size()) {
  connectTo(socket_, port);
}

void CoroutinePeer::ask(std::size_t times) {
  context_.restart();
  asio::co_spawn(context_, askAll(times), asio::detached);
  context_.run();
}

asio::awaitable<void> CoroutinePeer::askAll(std::size_t times) {
  for (std::size_t i = 0; i < times; ++i) {
    const auto frame = requestFrame(echoCommand, payload_);
    co_await asio::async_write(socket_, asio::buffer(frame), asio::use_awaitable);
    co_await asio::async_read(socket_, asio::buffer(answer_), asio::use_awaitable);
  }
}

HandOffPeer::HandOffPeer(std::uint16_t port, std::span<const std::byte> payload)
    : guard_(asio::make_work_guard(context_)), socket_(context_), payload_(payload.begin(), payload.end()),
      answer_(responseHeader + payload.size()), thread_([this] { context_.run(); }) {
  connectTo(socket_, port);
}

HandOffPeer::~HandOffPeer() {
  guard_.reset();
  thread_.join();
}

std::future<void> HandOffPeer::ask() {
  std::promise<void> promise;
  auto answered = promise.get_future();
  asio::post(context_, [this, promise = std::move(promise)]() mutable {
    frame_ = requestFrame(echoCommand, payload_);
    asio::async_write(socket_, asio::buffer(frame_),
                      [this, promise = std::move(promise)](std::error_code, std::size_t) mutable {
                        asio::async_read(socket_, asio::buffer(answer_),
                                         [promise = std::move(promise)](std::error_code, std::size_t) mutable {
                                           promise.set_value();
                                         });
                      });
  });
  return answered;
}

} // namespace vorlinkit::benchmarks
