#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

namespace vorlinkit {

/// Everything that can be set about a session. It is copied when the session is made; later changes of
/// the original have no effect.
struct SessionConfig {
  /// Name or numeric address of the machine's control server.
  std::string host = "localhost";
  /// TCP port of the control server.
  std::uint16_t port = 50713;
  /// Deadline of one connect attempt, name lookup included.
  std::chrono::milliseconds connection_timeout{3000};
  /// Time allowed for the response to one attempt of a request, counted from the end of its write. The
  /// time a request spends in the queue behind others is not part of it.
  std::chrono::milliseconds request_timeout{15000};
  /// Attempts per request, the first included; 0 counts as 1. Each retry sends the request again, so
  /// leave it at 1 for commands that must not be carried out twice.
  std::uint32_t request_attempts = 1;
  /// How long the machine may take nothing of what is sent to it before the connection is given up
  /// ("Disconnected: Connection timed out"), counted from the last byte that it acknowledged. 0 and less: the longer
  /// of 15 s and `request_timeout` times `request_attempts`.
  std::chrono::milliseconds stall_timeout{0};
  /// Wait before each re-connect.
  std::chrono::milliseconds reconnect_delay{1000};
  /// 0 and less: every wait is `reconnect_delay`. Else each one is twice as long as the one before, up to this, until
  /// a connection is made; a random part, at most half, is taken off, so that many clients of a machine do not come
  /// back at once.
  std::chrono::milliseconds reconnect_delay_max{0};
  /// Re-connect after a failed connect or a lost connection, for ever, until disconnect().
  bool auto_reconnect = true;
  /// Carried only: the access key in a request's header is fixed and does not come from here.
  std::array<std::uint8_t, 4> access_keys{0x5A, 0xC3, 0x1E, 0x87};
};

} // namespace vorlinkit
