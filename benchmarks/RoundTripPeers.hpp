// What the session's round trip is measured against. All of them do the same work on the wire.
#pragma once

#include "Asio.hpp"

#include <cstddef>
#include <cstdint>
#include <future>
#include <span>
#include <thread>
#include <vector>

namespace vorlinkit::benchmarks {

/// A socket, one thread, send and recv: the least that a round trip can cost.
class BlockingPeer {
public:
  BlockingPeer(std::uint16_t port, std::span<const std::byte> payload);
  ~BlockingPeer();
  BlockingPeer(const BlockingPeer&) = delete;
  BlockingPeer& operator=(const BlockingPeer&) = delete;
  void ask();

private:
  int socket_;
  std::vector<std::byte> payload_;
  std::vector<std::byte> answer_;
};

/// A coroutine over asio on the calling thread.
class CoroutinePeer {
public:
  CoroutinePeer(std::uint16_t port, std::span<const std::byte> payload);
  void ask(std::size_t times);

private:
  asio::awaitable<void> askAll(std::size_t times);

  asio::io_context context_{1};
  asio::ip::tcp::socket socket_;
  std::vector<std::byte> payload_;
  std::vector<std::byte> answer_;
};

/// The bare minimum of a client with an I/O thread: post there, wait on a future here.
class HandOffPeer {
public:
  HandOffPeer(std::uint16_t port, std::span<const std::byte> payload);
  ~HandOffPeer();
  HandOffPeer(const HandOffPeer&) = delete;
  HandOffPeer& operator=(const HandOffPeer&) = delete;
  std::future<void> ask();

private:
  asio::io_context context_{1};
  asio::executor_work_guard<asio::io_context::executor_type> guard_;
  asio::ip::tcp::socket socket_;
  std::vector<std::byte> payload_;
  std::vector<std::byte> frame_;
  std::vector<std::byte> answer_;
  std::thread thread_;
};

} // namespace vorlinkit::benchmarks
