// What becomes of requests, as dialogues over events. Times are in milliseconds; an attempt has 100.
#include "RequestFsm.hpp"
#include "Dialogue.hpp"

#include <map>

namespace vorlinkit::test {
namespace {

using namespace std::chrono_literals;

class Requests {
public:
  explicit Requests(std::uint32_t attempts) : fsm_(100ms, attempts, counters) {}

  std::string operator()(std::istringstream& words) {
    std::string event;
    words >> event;
    told_.clear();
    tell(event, words);
    std::string decided = told_;
    while (true) {
      const RequestFsm::Action action = fsm_.next();
      if (std::holds_alternative<RequestFsm::Nothing>(action)) break;
      decided += std::visit([this](const auto& what) { return text(what); }, action);
    }
    if (fsm_.deadline() == Time()) return decided + "soon";
    if (fsm_.deadline() != Time::max()) decided += "until " + std::to_string((fsm_.deadline() - start) / 1ms);
    if (fsm_.isQuiet()) decided += "quiet";
    return decided;
  }

  TrafficCounters counters;

private:
  using Time = RequestFsm::TimePoint;
  static constexpr Time start{1h};

  struct Silent final : PendingRequest {
    using PendingRequest::PendingRequest;
    void complete(Outcome) noexcept override {}
  };

  Time at(std::istringstream& words) {
    int milliseconds = 0;
    words >> milliseconds;
    return start + std::chrono::milliseconds(milliseconds);
  }
  static std::uint16_t id(std::istringstream& words) {
    std::uint16_t number = 0;
    words >> number;
    return number;
  }
  static std::unique_ptr<PendingRequest> request(std::uint16_t commandId) {
    return std::make_unique<Silent>(commandId, std::span<const std::byte>());
  }

  void tell(const std::string& event, std::istringstream& words) {
    const Error error{ErrorCode::Transport, event};
    if (event == "submit")
      fsm_.submit(request(id(words)));
    else if (event == "direct" || event == "part") {
      const std::uint16_t command = id(words);
      fsm_.submitWritten(request(command), at(words), 18);
      if (event == "part") fsm_.unwritten(std::vector<std::byte>(18), 7);
    } else if (event == "encoded")
      fsm_.encoded(18);
    else if (event == "unwritten")
      fsm_.unwritten(std::vector<std::byte>(18), 7);
    else if (event == "written")
      fsm_.written(at(words));
    else if (event == "writeFailed")
      fsm_.writeFailed(error);
    else if (event == "notSendable")
      fsm_.notSendable(error);
    else if (event == "observerThrew")
      fsm_.observerThrew(error);
    else if (event == "response" || event == "refusal" || event == "warning")
      receive(event, id(words));
    else if (event == "fault")
      fsm_.protocolFault("fault");
    else if (event == "time")
      fsm_.timePassed(at(words));
    else if (event == "noTimer")
      fsm_.notTimed(error);
    else if (event == "lineRead")
      fsm_.lineRead();
    else if (event == "lost")
      fsm_.lost(error);
    else if (event == "stop")
      fsm_.stop();
    else
      ADD_FAILURE() << "no such event: " << event;
  }

  void receive(const std::string& event, std::uint16_t commandId) {
    RawMessage message{MessageType::Response, commandId, nullptr, {}, 0, 0};
    if (event == "refusal") message.majorError = 0x20;
    if (event == "warning") message.minorError = 1;
    const auto reception = fsm_.response(message);
    if (reception.kind == RequestFsm::Reception::Kind::Unexpected) told_ += "unexpected, ";
    if (reception.kind == RequestFsm::Reception::Kind::Refused)
      told_ += "refused, ";
    else if (!reception.text.empty())
      told_ += "warned, ";
  }

  std::string text(const RequestFsm::Nothing&) { return {}; }
  std::string text(const RequestFsm::Send& send) { return "send " + std::to_string(send.request.commandId) + ", "; }
  std::string text(const RequestFsm::WriteRest& rest) { return "write from " + std::to_string(rest.from) + ", "; }
  std::string text(const RequestFsm::ReadLine&) { return "read line, "; }
  std::string text(const RequestFsm::Complete& done) {
    const std::string command = std::to_string(done.request->commandId);
    return command + (done.outcome ? " ok, " : " failed: " + done.outcome.error().message + ", ");
  }
  std::string text(const RequestFsm::LogRetry& log) {
    static const char* const causes[] = {"write failed", "observer threw", "timed out"};
    return std::string(causes[static_cast<int>(log.cause)]) + " " + std::to_string(log.commandId) + ", retry " +
           std::to_string(log.attempt) + " of " + std::to_string(log.attempts) + ", ";
  }

  RequestFsm fsm_;
  std::string told_;
};

constexpr const char* timeout9 = "Request timeout for commandId=9 after ";

TEST(RequestFsm, SendsOneAtATimeAndMatchesByCommandId) {
  play(R"(
    submit 9        : send 9,
    submit 11       :
    written 10      : until 110
    response 7      : unexpected, until 110
    response 9      : 9 ok, send 11,
    response 11     :
    written 20      : 11 ok, quiet
    response 11     : unexpected, quiet
  )",
       Requests(1));
}

TEST(RequestFsm, RefusalsWarningsAndJunkEndTheRequestAsTheyShould) {
  play(R"(
    submit 5        : send 5,
    refusal 5       : refused, 5 failed: VORLIN protocol error (majorError): ExclusiveControlRequired (0x00000020),
    submit 6        :
    written 1       : send 6,
    written 2       : until 102
    warning 6       : warned, 6 ok, quiet
    submit 7        : send 7,
    written 3       : until 103
    fault           : 7 failed: fault,
    fault           :
    submit 8        : send 8,
    written 4       : until 104
    response 8      : 8 ok, quiet
  )",
       Requests(1));
}

TEST(RequestFsm, AnAnswerThatHasArrivedWinsOverATimeOut) {
  play(R"(
    submit 9        : send 9,
    written 0       : until 100
    time 99         : until 100
    time 100        : read line,
    response 9      : 9 ok, quiet
    lineRead        : quiet
    direct 9 200    : until 300
    time 1000       : read line,
    response 9      : 9 ok, quiet
    submit 9        : send 9,
    written 0       : until 100
    time 5000       : read line,
    lost            : 9 failed: lost, quiet
    lineRead        : quiet
  )",
       Requests(1));
}

TEST(RequestFsm, AfterATimeOutTheLineIsNotQuietBeforeAnotherCommandIsAnswered) {
  const std::string timedOut = std::string(timeout9) + "1 attempt(s)";
  play(R"(
    direct 9 0      : until 100
    time 100        : read line,
    lineRead        : 9 failed: )" +
           timedOut + R"(,
    submit 9        : send 9,
    written 100     : until 200
    response 9      : 9 ok,
    response 9      : unexpected,
    submit 10       : send 10,
    written 200     : until 300
    response 10     : 10 ok, quiet
  )",
       Requests(1));
}

TEST(RequestFsm, RetriesAndCounts) {
  Requests requests(3);
  play(R"(
    submit 9        : send 9,
    encoded         :
    written 0       : until 100
    time 100        : read line,
    lineRead        : timed out 9, retry 2 of 3, soon
    time 100        : send 9,
    encoded         :
    written 110     : until 210
    time 210        : read line,
    lineRead        : timed out 9, retry 3 of 3, soon
    time 210        : send 9,
    encoded         :
    written 210     : until 310
    time 310        : read line,
    lineRead        : 9 failed: Request timeout for commandId=9 after 3 attempt(s),
    submit 300      : send 300,
    writeFailed     : write failed 300, retry 2 of 3, soon
    time 400        : send 300,
    observerThrew   : observer threw 300, retry 3 of 3, soon
    time 400        : send 300,
    writeFailed     : 300 failed: writeFailed,
    submit 8        : send 8,
    notSendable     : 8 failed: notSendable,
    submit 9        : send 9,
    written 0       : until 100
    time 100        : read line,
    lineRead        : timed out 9, retry 2 of 3, soon
    response 9      : 9 ok,
  )",
       [&](std::istringstream& words) { return requests(words); });
  EXPECT_EQ(requests.counters.bytesSent, 3 * 18U);
  EXPECT_EQ(requests.counters.bytesSentOf[9], 3 * 18U);
  EXPECT_EQ(requests.counters.requestsTimedOut, 1U);
  EXPECT_EQ(requests.counters.timeoutsOf[9], 1U);
  EXPECT_EQ(requests.counters.timeoutRetries, 3U);
  EXPECT_EQ(requests.counters.retriesOf[9], 3U);
}

TEST(RequestFsm, WhatACallerHasWrittenIsWrittenOnOrFailsWithTheConnection) {
  play(R"(
    part 9 0        : write from 7,
    submit 10       :
    refusal 9       : refused, 9 failed: VORLIN protocol error (majorError): ExclusiveControlRequired (0x00000020),
    written 5       : send 10,
    written 6       : until 106
    response 10     : 10 ok, quiet
    part 9 0        : write from 7,
    written 7       : until 107
    response 9      : 9 ok, quiet
    direct 9 0      : until 100
    fault           : 9 failed: fault,
    unwritten       : write from 7,
    submit 10       :
    written 8       : send 10,
    written 9       : until 109
    response 10     : 10 ok, quiet
  )",
       Requests(1));
}

TEST(RequestFsm, ALossFailsEverythingAndALateEndOfTheWriteMeansNothing) {
  play(R"(
    submit 9        : send 9,
    submit 10       :
    lost            : 9 failed: lost, 10 failed: lost, quiet
    writeFailed     : quiet
    submit 11       : send 11,
    written 0       : until 100
    noTimer         : 11 failed: noTimer,
    lost            : quiet
    submit 12       : send 12,
    stop            : 12 failed: MessageFramer stopped,
    submit 13       : 13 failed: MessageFramer stopped,
    direct 14 0     : 14 failed: MessageFramer stopped,
  )",
       Requests(3));
}

} // namespace
} // namespace vorlinkit::test
