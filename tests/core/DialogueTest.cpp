// What is decided about requests and connections: plays the dialogues of dialogues/*.txt, whose heads say how to read
// them.
#include "ConnectionFsm.hpp"
#include "RequestFsm.hpp"

#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <sstream>

namespace vorlinkit::test {
namespace {

using namespace std::chrono_literals;
using Words = std::istringstream;

template <typename Number> Number number(Words& words) {
  Number value = 0;
  words >> value;
  return value;
}

class Requests {
public:
  explicit Requests(const std::string& title) : fsm_(title.ends_with("(3 attempts)") ? 3 : 1, counters_) {}

  std::string play(const std::string& event, Words& words) {
    const Error error{ErrorCode::Transport, event};
    const std::map<std::string, std::function<void()>> events{
        {"submit", [&] { fsm_.submit(request(words)); }},
        {"direct", [&] { submitWritten(words); }},
        {"partly", [&] { submitWritten(words), fsm_.unwritten(std::vector<std::byte>(18), 7); }},
        {"unwritten", [&] { fsm_.unwritten(std::vector<std::byte>(18), 7); }},
        {"encoded", [&] { fsm_.encoded(18); }},
        {"written", [&] { fsm_.written(at(words)); }},
        {"writeFailed", [&] { fsm_.writeFailed(error); }},
        {"notSendable", [&] { fsm_.notSendable(error); }},
        {"observerThrew", [&] { fsm_.observerThrew(error); }},
        {"response", [&] { receive(words, 0, 0); }},
        {"refusal", [&] { receive(words, 0x20, 0); }},
        {"warning", [&] { receive(words, 0, 1); }},
        {"fault", [&] { fsm_.protocolFault("fault"); }},
        {"time", [&] { fsm_.timePassed(at(words)); }},
        {"noTimer", [&] { fsm_.notTimed(error); }},
        {"lineRead", [&] { fsm_.lineRead(); }},
        {"lost", [&] { fsm_.lost(error); }},
        {"stop", [&] { fsm_.stop(); }},
        {"counters", [&] { tellCounters(number<std::size_t>(words)); }}};
    said_.clear();
    events.at(event)();
    for (bool more = true; more;)
      more = std::visit([this](const auto& action) { return tell(action); }, fsm_.next());
    if (fsm_.deadline() == Time()) return said_ + "soon";
    if (fsm_.deadline() != Time::max()) said_ += "until " + std::to_string((fsm_.deadline() - start) / 1ms);
    return fsm_.isQuiet() ? said_ + "quiet" : said_;
  }

private:
  using Time = RequestFsm::TimePoint;
  static constexpr Time start{1h};
  static constexpr std::uint16_t hasty = 30;

  struct Silent final : PendingRequest {
    using PendingRequest::PendingRequest;
    void complete(Outcome) noexcept override {}
  };
  static std::unique_ptr<PendingRequest> request(Words& words) {
    const auto commandId = number<std::uint16_t>(words);
    const auto timeout = commandId == hasty ? 30ms : 100ms;
    return std::make_unique<Silent>(commandId, std::span<const std::byte>(), SendOptions{timeout});
  }
  static Time at(Words& words) { return start + std::chrono::milliseconds(number<int>(words)); }
  void submitWritten(Words& words) {
    auto written = request(words);
    fsm_.submitWritten(std::move(written), at(words), 18);
  }
  void receive(Words& words, std::uint32_t majorError, std::uint32_t minorError) {
    const auto commandId = number<std::uint16_t>(words);
    const auto reception = fsm_.response({MessageType::Response, commandId, nullptr, {}, majorError, minorError});
    if (reception.kind == RequestFsm::Reception::Kind::Unexpected) said_ += "unexpected, ";
    if (!reception.text.empty()) said_ += majorError ? "refused, " : "warned, ";
  }
  void tellCounters(std::size_t command) {
    const auto both = [](const auto& one, const auto& all) {
      return std::to_string(one) + " of " + std::to_string(all);
    };
    said_ += "sent " + both(counters_.bytesSentOf[command].load(), counters_.bytesSent.load()) + ", time-outs " +
             both(counters_.timeoutsOf[command].load(), counters_.requestsTimedOut.load()) + ", retries " +
             both(counters_.retriesOf[command].load(), counters_.timeoutRetries.load()) + ", ";
  }

  bool say(const std::string& text) { return said_ += text + ", ", true; }
  bool tell(const RequestFsm::Nothing&) { return false; }
  bool tell(const RequestFsm::Send& send) { return say("send " + std::to_string(send.request.commandId)); }
  bool tell(const RequestFsm::WriteRest& rest) { return say("write from " + std::to_string(rest.from)); }
  bool tell(const RequestFsm::ReadLine&) { return say("read line"); }
  bool tell(const RequestFsm::Complete& done) {
    return say(std::to_string(done.request->commandId) +
               (done.outcome ? " ok" : " failed: " + done.outcome.error().message) +
               (done.outcome || done.outcome.error().majorError == 0 ? "" : " by its flags"));
  }
  bool tell(const RequestFsm::LogRetry& log) {
    static const char* const causes[] = {"write failed ", "observer threw ", "timed out "};
    return say(causes[static_cast<int>(log.cause)] + std::to_string(log.commandId) + ", retry " +
               std::to_string(log.attempt) + " of " + std::to_string(log.attempts));
  }

  TrafficCounters counters_;
  RequestFsm fsm_;
  std::string said_;
};

class Connections {
public:
  explicit Connections(const std::string& title)
      : fsm_(std::make_error_code(std::errc::operation_canceled), {100ms, title.ends_with("(up to 1000)") ? 1000ms
                                                                          : title.ends_with("(up to 50)") ? 50ms
                                                                                                          : 0ms}) {}

  std::string play(const std::string& event, Words& words) {
    const auto attempt = number<ConnectionFsm::Number>(words);
    std::string result;
    words >> result;
    static const std::map<std::string, std::errc> results{{"refused", std::errc::connection_refused},
                                                          {"reset", std::errc::connection_reset}};
    const auto known = results.find(result);
    const auto failure = known == results.end() ? std::error_code() : std::make_error_code(known->second);
    const std::map<std::string, std::function<ConnectionFsm::Decision()>> events{
        {"connect", [&] { return fsm_.connect(); }},
        {"close", [&] { return fsm_.close(); }},
        {"reconnectDue", [&] { return fsm_.reconnectDue(); }},
        {"lookedUp", [&] { return fsm_.lookedUp(attempt, failure, number<std::size_t>(words)); }},
        {"ended", [&] { return fsm_.connectEnded(attempt, failure); }},
        {"deadline", [&] { return fsm_.deadlinePassed(attempt); }},
        {"failed", [&] { return fsm_.connectionFailed(attempt, failure); }}};
    return text(events.at(event)());
  }

private:
  std::string text(const ConnectionFsm::Decision& decision) {
    std::string text;
    if (decision.cancelReconnect) text += "cancel, ";
    if (const auto failed = decision.attemptFailed)
      text += failed->timedOut ? "timed out, " : "attempt failed: " + failed->reason.message() + ", ";
    if (decision.lost) text += "lost: " + decision.lost->message() + ", ";
    const auto delay = [this](double random) { return std::to_string(fsm_.reconnectDelay(random) / 1ms); };
    if (decision.scheduleReconnect)
      text += "schedule " + delay(0) + (delay(1) == delay(0) ? "" : "-" + delay(1)) + ", ";
    if (decision.lookUp) text += "look up, ";
    if (decision.connectToAddress) text += "connect to " + std::to_string(*decision.connectToAddress) + ", ";
    return decision.connected ? text + "connected, " : text;
  }

  ConnectionFsm fsm_;
};

std::string trimmed(std::string text) {
  text.erase(0, text.find_first_not_of(' '));
  return text.erase(text.find_last_not_of(" ,") + 1);
}

/// Plays every dialogue of a file, each with players of its own, and yields how many lines there were.
template <typename Players> int playAll(const std::string& file) {
  std::ifstream lines(std::string(VORLINKIT_DIALOGUES) + "/" + file);
  std::optional<Players> players;
  std::string title;
  int played = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '=') {
      title = line;
      players.emplace(title);
      continue;
    }
    const auto colon = line.find(" :");
    Words words(line.substr(0, colon));
    std::string event;
    words >> event;
    EXPECT_EQ(trimmed(players->play(event, words)), trimmed(line.substr(colon + 2))) << line << " in " << title;
    ++played;
  }
  return played;
}

TEST(Dialogue, OfRequests) { EXPECT_GT(playAll<Requests>("requests.txt"), 90); }
TEST(Dialogue, OfConnections) { EXPECT_GT(playAll<Connections>("connections.txt"), 30); }

} // namespace
} // namespace vorlinkit::test
