// The life of the transport: decisions only, no sockets, no timers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <system_error>

namespace vorlinkit {

/// Decides what becomes of attempts to connect and of connections: which is meant, when one has failed or is lost, and
/// whether another follows.
///
/// Told of events by TcpTransport, which then carries out the decision. Each attempt has a number, which its connection
/// keeps: an event of an older one means nothing any more. I/O thread.
class ConnectionFsm {
public:
  enum class State {
    Idle,       // nothing is under way; a re-connect may be scheduled
    LookingUp,  // the addresses of the host
    Connecting, // to one address after the other
    Connected,
    Closed // until connect()
  };
  using Number = std::uint64_t;

  struct Failure {
    std::error_code reason;
    bool timedOut = false;
  };
  /// What to do, in the order of its members.
  struct Decision {
    bool cancelReconnect = false;
    std::optional<Failure> attemptFailed;        // end it, report it, tell the caller
    std::optional<std::error_code> lost;         // close the connection, report it
    bool scheduleReconnect = false;              // if the session wants it
    bool lookUp = false;                         // a new attempt: start its deadline, and the look-up
    std::optional<std::size_t> connectToAddress; // the index of one that was found
    bool connected = false;                      // report it, start to read
  };

  /// How long to wait before re-connects; with `longest` above 0 they grow up to it, and vary.
  struct Delays {
    std::chrono::milliseconds first;
    std::chrono::milliseconds longest;
  };

  /// `ended`: what those are told whose attempt or connection somebody has ended on purpose.
  ConnectionFsm(std::error_code ended, Delays delays) noexcept : ended_(ended), delays_(delays) {}

  // -- events
  Decision connect() noexcept;
  Decision reconnectDue() noexcept;
  Decision close() noexcept;
  Decision lookedUp(Number number, std::error_code failure, std::size_t addresses) noexcept;
  Decision connectEnded(Number number, std::error_code failure) noexcept;
  Decision deadlinePassed(Number number) noexcept;
  Decision connectionFailed(Number number, std::error_code reason) noexcept;

  /// The wait before the re-connect that was decided last. `random`: from 0 to 1, another one each time.
  std::chrono::milliseconds reconnectDelay(double random) const noexcept;
  State state() const noexcept { return state_; }
  /// Of the newest attempt.
  Number number() const noexcept { return number_; }
  bool isCurrent(Number number) const noexcept { return number == number_; }

private:
  bool attempting() const noexcept { return state_ == State::LookingUp || state_ == State::Connecting; }
  /// Ends what is under way.
  Decision end() noexcept;
  void start(Decision& decision) noexcept;
  Decision attemptFailed(Failure failure) noexcept;
  void scheduleReconnect(Decision& decision) noexcept;

  const std::error_code ended_;
  const Delays delays_;
  State state_ = State::Idle;
  Number number_ = 0;
  std::size_t addresses_ = 0;
  std::size_t address_ = 0;
  unsigned inARow_ = 0; // re-connects that were decided on since there was a connection
};

} // namespace vorlinkit
