// The front door of the library: one connection to one machine.
#pragma once

#include <vorlinkit/Error.hpp>
#include <vorlinkit/FrameDirection.hpp>
#include <vorlinkit/IVorlinLogger.hpp>
#include <vorlinkit/RawMessage.hpp>
#include <vorlinkit/SessionConfig.hpp>

#include <chrono>
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

/// How one request is sent.
struct SendOptions {
  /// Time allowed for the response to one attempt; 0 and less: `request_timeout`.
  std::chrono::milliseconds timeout{0};
  /// The number of the connection on which it may go out (`VorlinSession::connection`); 0: on any. On another one the
  /// request is refused: "Not connected".
  std::uint64_t connection = 0;
};
/// Called once with what became of a request, on the I/O thread.
using SendCompletion = std::function<void(std::expected<RawMessage, Error>)>;
/// Called once with what became of an attempt to connect, on the I/O thread.
using ConnectCompletion = std::function<void(std::expected<void, Error>)>;
/// Called once when the connection is closed, on the I/O thread.
using DisconnectCompletion = std::function<void()>;

/// A session with a machine's control server.
///
/// Owns one I/O thread, which runs everything: reads, writes, timers and every callback. All operations
/// may be called from any thread. A callback must be quick, and must not wait on a future of its own
/// session, since it runs on the thread that would complete it. An exception that leaves a callback is
/// logged at `err` and the session goes on.
///
/// After a fork the child may only destroy an inherited session: connect and send fail with "Not
/// connected", the rest does nothing, and callbacks are not kept.
///
/// A completion is called exactly once, whatever happens, unless the call it was given to has thrown. Once the I/O
/// thread has ended, and in the child of a fork, that is on the thread that makes the call or ends the session; so do
/// not send again when it is told Stopped.
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
  void connect(ConnectCompletion completion);
  /// Closes the connection, ends re-connecting, and waits until both are done; on the I/O thread of any
  /// session it only starts the close, since two sessions that wait for each other would do so for ever.
  void disconnect();
  /// The same without waiting: the future becomes ready when both are done. On the I/O thread of any session
  /// it is ready at once.
  std::future<void> start_disconnect();
  void start_disconnect(DisconnectCompletion completion);
  bool is_connected() const noexcept;
  /// The number of the connection that is up, 0 for none. Each new one has a higher number.
  std::uint64_t connection() const noexcept;
  /// The id the machine gave this connection, learned from the response to command 1; 0 when unknown.
  std::uint8_t client_id() const noexcept;

  /// Sends a request and yields its response. The payload is copied before the call returns. Requests
  /// are sent strictly one at a time, in order. The future always becomes ready: with the response, or
  /// with Transport (not connected, connection lost, write failed), Timeout (no response), Protocol (the
  /// machine refused the request) or Stopped (the session is going away).
  ///
  /// A response is matched to the request in flight by its command id alone, as the protocol carries
  /// nothing else: a late answer after a time-out is taken by the next request of the same command.
  std::future<std::expected<RawMessage, Error>> send(std::uint16_t commandId, std::span<const std::byte> payload = {},
                                                     SendOptions options = {});
  /// The same without a future, for callers who must not wait.
  void send(std::uint16_t commandId, std::span<const std::byte> payload, SendOptions options,
            SendCompletion completion);

  /// One handler per command id; a later one replaces the earlier, an empty one removes it.
  void on_notification(std::uint16_t commandId, NotificationHandler handler);
  void on_frame(FrameObserver observer);
  void on_connection_state_changed(StateObserver observer);

  /// True on the session's own I/O thread, where waiting for one of its futures would never end.
  bool is_io_thread() const noexcept;
  /// For language bindings: called on the I/O thread before and after each received chunk is cut into
  /// frames and dispatched, so that an interpreter lock can be held once per chunk. Set before connect. An
  /// exception that leaves one is logged at `err`.
  void set_chunk_hooks(std::function<void()> before, std::function<void()> after);

private:
  std::unique_ptr<VorlinSessionImpl> impl_;
};

} // namespace vorlinkit
