// The front door of the library: one connection to one machine.
#pragma once

#include <vorlinkit/Error.hpp>
#include <vorlinkit/FrameDirection.hpp>
#include <vorlinkit/IVorlinLogger.hpp>
#include <vorlinkit/RawMessage.hpp>
#include <vorlinkit/SessionConfig.hpp>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <future>
#include <memory>
#include <span>
#include <string>

namespace vorlinkit {

class VorlinSessionImpl;

/// Called for a notification of one command id, on the I/O thread.
using NotificationHandler = std::function<void(const RawMessage&)>;
/// Called for every frame sent or received, on the I/O thread; the bytes are valid during the call.
using FrameObserver = std::function<void(FrameDirection, std::span<const std::byte>)>;
/// Called on every change of the connection, on the I/O thread: (true, "") or (false, reason).
using StateObserver = std::function<void(bool connected, const std::string& reason)>;

/// A session with a machine's control server.
///
/// Owns one I/O thread, which runs everything: reads, writes, timers and every callback. All operations
/// may be called from any thread. A callback must be quick, and must not wait on a future of its own
/// session, since it runs on the thread that would complete it. An exception that leaves a callback is
/// logged at `err` and the session goes on.
///
/// After a fork the child may only destroy an inherited session: connect and send fail with "Not
/// connected", the rest does nothing.
class VorlinSession {
public:
  /// Starts the I/O thread; does not connect. Throws std::system_error if the thread cannot be started.
  explicit VorlinSession(SessionConfig config, std::shared_ptr<IVorlinLogger> logger = nullptr);
  /// Closes the connection and completes every future that is still waiting. May run on the I/O thread
  /// (the last owner gone inside a callback); it then returns at once and the thread cleans up.
  ~VorlinSession();
  VorlinSession(const VorlinSession&) = delete;
  VorlinSession& operator=(const VorlinSession&) = delete;

  /// Connects within `connection_timeout`; a connect or connection that is under way is given up first.
  /// Failure: Transport or Timeout, "Failed to connect: " and the reason.
  std::future<std::expected<void, Error>> connect();
  /// Closes the connection, ends re-connecting, and waits until both are done; on any session's I/O thread
  /// it only starts the close.
  void disconnect();
  /// The same without the wait: the future becomes ready when the close is done, or is ready at once on any
  /// session's I/O thread, which must not wait for it.
  std::future<void> start_disconnect();
  bool is_connected() const noexcept;
  /// The id the machine gave this connection, learned from the response to command 1; 0 when unknown.
  std::uint8_t client_id() const noexcept;

  /// Sends a request and yields its response. The payload is copied before the call returns. Requests
  /// are sent strictly one at a time, in order. The future always becomes ready: with the response, or
  /// with Transport (not connected, connection lost, write failed), Timeout (no response), Protocol (the
  /// machine refused the request) or Stopped (the session is going away).
  ///
  /// A response is matched to the request in flight by its command id alone, as the protocol carries
  /// nothing else: a late answer after a time-out is taken by the next request of the same command.
  std::future<std::expected<RawMessage, Error>> send(std::uint16_t commandId, std::span<const std::byte> payload = {});

  /// One handler per command id; a later one replaces the earlier, an empty one removes it.
  void on_notification(std::uint16_t commandId, NotificationHandler handler);
  void on_frame(FrameObserver observer);
  void on_connection_state_changed(StateObserver observer);

  /// True on the session's own I/O thread, where waiting for one of its futures would never end.
  bool is_io_thread() const noexcept;
  /// For language bindings: called on the I/O thread before and after each received chunk is cut into
  /// frames and dispatched, so that an interpreter lock can be held once per chunk. Set before connect.
  void set_chunk_hooks(std::function<void()> before, std::function<void()> after);

private:
  std::unique_ptr<VorlinSessionImpl> impl_;
};

} // namespace vorlinkit
