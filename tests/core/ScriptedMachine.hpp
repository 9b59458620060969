// A machine that follows a script: what a test's peer says and does is written down as a dialogue.
#pragma once

#include "Asio.hpp"
#include "Frames.hpp"

#include <vorlinkit/VorlinSession.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace vorlinkit::test {

using namespace std::chrono_literals;
using Outcome = std::expected<RawMessage, Error>;

/// The error of an outcome; one that no session has if it succeeded.
inline Error errorOf(const auto& outcome) { return outcome ? Error{{}, "succeeded"} : outcome.error(); }

/// For a session on this computer; it re-connects if it is said after how long.
inline SessionConfig configFor(std::uint16_t port, std::optional<std::chrono::milliseconds> reconnect = {}) {
  SessionConfig config;
  config.host = "127.0.0.1";
  config.port = port;
  config.auto_reconnect = reconnect.has_value();
  config.reconnect_delay = reconnect.value_or(1h);
  return config;
}

/// Puts down what the state observer is told; `states` has to outlive the session.
inline void noteStates(VorlinSession& session, std::vector<std::string>& states) {
  session.on_connection_state_changed(
      [&](bool connected, const std::string& reason) { states.push_back(connected ? "up" : reason); });
}

/// The machine's end of one connection.
class Peer {
public:
  explicit Peer(asio::ip::tcp::socket socket) : socket_(std::move(socket)) {
    socket_.set_option(asio::ip::tcp::no_delay(true));
  }

  struct Request {
    std::uint16_t commandId;
    Bytes frame;
    Bytes payload() const { return {frame.begin() + 18, frame.end()}; }
  };

  /// The next request; nothing when the client has gone.
  std::optional<Request> read() {
    Bytes frame(18);
    std::error_code ended;
    asio::read(socket_, asio::buffer(frame), ended);
    if (ended) return std::nullopt;
    std::uint32_t length = 0;
    for (std::size_t at = 14; at < 18; ++at)
      length = (length << 8) | std::to_integer<std::uint32_t>(frame[at]);
    frame.resize(18 + length);
    asio::read(socket_, asio::buffer(frame.data() + 18, length), ended);
    if (ended) return std::nullopt;
    const auto id = static_cast<std::uint16_t>((std::to_integer<int>(frame[6]) << 8) | std::to_integer<int>(frame[7]));
    return Request{id, std::move(frame)};
  }
  /// Reads `total` bytes, `step` at a time with a pause before each; yields how many came.
  std::size_t readSlowly(std::size_t total, std::size_t step, std::chrono::milliseconds pause) {
    Bytes taken(step);
    std::size_t count = 0;
    for (std::error_code ended; count < total && !ended;) {
      std::this_thread::sleep_for(pause);
      count += asio::read(socket_, asio::buffer(taken.data(), std::min(step, total - count)), ended);
    }
    return count;
  }
  bool write(const Bytes& data) {
    std::error_code ended;
    asio::write(socket_, asio::buffer(data), ended);
    return !ended;
  }
  /// Answers every request with its own payload until the client goes.
  void echo() {
    while (const auto got = read())
      write(response(got->commandId, got->payload()));
  }
  /// Takes requests until the client goes, and answers none.
  void ignore() {
    while (read())
      continue;
  }
  void close() { socket_.close(); }
  void reset() {
    socket_.set_option(asio::socket_base::linger(true, 0));
    socket_.close();
  }

private:
  asio::ip::tcp::socket socket_;
};

/// Listens on loopback; the n-th connection follows the n-th scene, later ones the last.
class ScriptedMachine {
public:
  using Scene = std::function<void(Peer&)>;

  explicit ScriptedMachine(std::vector<Scene> scenes)
      : acceptor_(context_, {asio::ip::address_v4::loopback(), 0}), scenes_(std::move(scenes)),
        thread_([this] { run(); }) {}
  ~ScriptedMachine() {
    stopping_ = true;
    asio::ip::tcp::socket waker(context_);
    std::error_code ignored;
    waker.connect(acceptor_.local_endpoint(), ignored);
    thread_.join();
    for (auto& scene : playing_)
      scene.join();
  }
  ScriptedMachine(const ScriptedMachine&) = delete;
  ScriptedMachine& operator=(const ScriptedMachine&) = delete;

  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }
  int accepted() const { return accepted_; }

private:
  void run() {
    for (;;) {
      auto peer = std::make_shared<Peer>(acceptor_.accept());
      if (stopping_) return;
      const auto number = static_cast<std::size_t>(accepted_++);
      playing_.emplace_back([peer, scene = scenes_[std::min(number, scenes_.size() - 1)]] { scene(*peer); });
    }
  }

  asio::io_context context_;
  asio::ip::tcp::acceptor acceptor_;
  std::vector<Scene> scenes_;
  std::vector<std::thread> playing_;
  std::atomic<bool> stopping_{false};
  std::atomic<int> accepted_{0};
  std::thread thread_;
};

} // namespace vorlinkit::test
