// The life of the transport, as dialogues over events.
#include "ConnectionFsm.hpp"
#include "Dialogue.hpp"

namespace vorlinkit::test {
namespace {

std::error_code failure(const std::string& name) {
  if (name == "ok") return {};
  if (name == "refused") return std::make_error_code(std::errc::connection_refused);
  return std::make_error_code(std::errc::connection_reset);
}

/// Events carry the number of the attempt that they belong to.
struct Connections {
  ConnectionFsm fsm{std::make_error_code(std::errc::operation_canceled)};

  std::string operator()(std::istringstream& words) {
    std::string event;
    std::string result;
    ConnectionFsm::Number number = 0;
    std::size_t addresses = 0;
    words >> event >> number >> result >> addresses;
    if (event == "connect") return text(fsm.connect());
    if (event == "close") return text(fsm.close());
    if (event == "reconnectDue") return text(fsm.reconnectDue());
    if (event == "lookedUp") return text(fsm.lookedUp(number, failure(result), addresses));
    if (event == "ended") return text(fsm.connectEnded(number, failure(result)));
    if (event == "deadline") return text(fsm.deadlinePassed(number));
    if (event == "failed") return text(fsm.connectionFailed(number, failure(result)));
    return "no such event";
  }

  static std::string text(const ConnectionFsm::Decision& decision) {
    std::string text;
    if (decision.cancelReconnect) text += "cancel, ";
    if (decision.attemptFailed)
      text += decision.attemptFailed->timedOut ? "timed out, "
                                               : "attempt failed: " + decision.attemptFailed->reason.message() + ", ";
    if (decision.lost) text += "lost: " + decision.lost->message() + ", ";
    if (decision.scheduleReconnect) text += "schedule, ";
    if (decision.lookUp) text += "look up, ";
    if (decision.connectToAddress) text += "connect to " + std::to_string(*decision.connectToAddress) + ", ";
    if (decision.connected) text += "connected, ";
    return text.substr(0, text.empty() ? 0 : text.size() - 1);
  }
};

TEST(ConnectionFsm, TriesEveryAddressAndComesBackAfterALoss) {
  play(R"(
    connect              : look up,
    lookedUp 1 ok 2      : connect to 0,
    ended 1 refused      : connect to 1,
    ended 1 ok           : cancel, connected,
    deadline 1           :
    failed 1 reset       : lost: Connection reset by peer, schedule,
    failed 1 reset       :
    reconnectDue         : look up,
    reconnectDue         :
    lookedUp 2 refused 0 : attempt failed: Connection refused, schedule,
    reconnectDue         : look up,
    lookedUp 3 ok 1      : connect to 0,
    ended 3 refused      : attempt failed: Connection refused, schedule,
  )",
       Connections());
}

TEST(ConnectionFsm, ANewerConnectTakesOverAndOldEventsMeanNothing) {
  play(R"(
    connect              : look up,
    connect              : attempt failed: Operation canceled, schedule, look up,
    lookedUp 1 ok 1      :
    deadline 1           :
    lookedUp 2 ok 1      : connect to 0,
    ended 1 ok           :
    ended 2 ok           : cancel, connected,
    connect              : lost: Operation canceled, schedule, look up,
    failed 2 reset       :
    ended 2 refused      :
    deadline 3           : timed out, schedule,
    lookedUp 3 ok 1      :
  )",
       Connections());
}

TEST(ConnectionFsm, StaysClosedUntilAskedToConnect) {
  play(R"(
    close                : cancel,
    connect              : look up,
    close                : cancel, attempt failed: Operation canceled,
    reconnectDue         :
    lookedUp 1 ok 1      :
    connect              : look up,
    lookedUp 2 ok 1      : connect to 0,
    ended 2 ok           : cancel, connected,
    close                : cancel, lost: Operation canceled,
    failed 2 reset       :
    reconnectDue         :
  )",
       Connections());
}

} // namespace
} // namespace vorlinkit::test
