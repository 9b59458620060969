// Typed calls over a real socket, and what is said of each command.
#include "ScriptedMachine.hpp"

#include "every_kind_samples/headers.inc"
#include "machine_samples/headers.inc"

#include <vorlinkit/call.hpp>

#include <gmock/gmock.h>

#include <coroutine>
#include <future>
#include <optional>
#include <string_view>
#include <type_traits>

namespace vorlinkit::commands {
namespace {

template <typename Command, typename Request, typename Response, typename Notification>
constexpr bool describes(std::uint16_t id, std::string_view name, bool subscribable) {
  return Command::id == id && Command::name == name && std::is_same_v<typename Command::Request, Request> &&
         std::is_same_v<typename Command::Response, Response> &&
         std::is_same_v<typename Command::Notification, Notification> && SubscribableCommand<Command> == subscribable;
}

// Every command of both catalogues has its description.
#include "every_kind_samples/descriptions.inc"
#include "machine_samples/descriptions.inc"

} // namespace
} // namespace vorlinkit::commands

namespace vorlinkit::test {
namespace {

using namespace vorlinkit::commands;
using testing::ElementsAre;

/// Answers by the command: 2 bytes less than it should, a refusal, or what its script says.
void machine(Peer& peer) {
  while (const auto got = peer.read()) {
    switch (got->commandId) {
    case GetMachineInfo::id:
      peer.write(response(got->commandId, bytes({1, 2}) + text(std::string("1.0\0SN\0type\0", 12))));
      break;
    case FlushLog::id:
      peer.write(got->payload().size() == 1 ? response(got->commandId, bytes({0})) // a byte is missing
                                            : response(got->commandId, bytes({0, 2})));
      break;
    case GetMotorPosition::id:
      EXPECT_EQ(got->payload(), text(std::string("AD1\0", 4)) + bytes({1, 1}));
      peer.write(notification(got->commandId, text(std::string("AD1\0", 4)) + bytes({1})));
      peer.write(notification(got->commandId, text(std::string("AD1\0", 4)) + bytes({1, 0, 7, 0, 9})));
      peer.write(response(got->commandId, bytes({0, 0}) + text(std::string("AD1\0", 4)) + bytes({1, 0, 7, 0, 9})));
      break;
    case GetServerTime::id:
      peer.write(response(got->commandId, {}, 4));
      break;
    default:
      peer.write(response(got->commandId, {}));
    }
  }
}

class Call : public testing::Test {
public:
  Call() { EXPECT_TRUE(session.connect().get()); }

  ScriptedMachine scripted{{machine}};
  VorlinSession session{configFor(scripted.port())};
};

TEST_F(Call, GivesTheResponseOrWhyThereIsNone) {
  const auto info = call<GetMachineInfo>(session).get();
  ASSERT_TRUE(info) << info.error().message;
  EXPECT_EQ(std::pair(info->module_count, info->serial_number), std::pair(std::uint8_t{2}, std::string("SN")));
  EXPECT_EQ(call<FlushLog>(session, {.log_name = "Events"}).get()->command_error, 2);
  EXPECT_TRUE(call<NoOpCommand>(session).get());

  EXPECT_EQ(call<FlushLog>(session, {}).get().error(), (Error{ErrorCode::Decode, "Not enough bytes for uint16"}));
  EXPECT_EQ(call<GetServerTime>(session).get().error().code, ErrorCode::Protocol);
  const SendOptions elsewhere{.connection = session.connection() + 1};
  EXPECT_EQ(call<NoOpCommand>(session, elsewhere).get().error(), (Error{ErrorCode::Transport, "Not connected"}));
  EXPECT_EQ(call<FlushLog>(session, {.log_name = "x"}, elsewhere).get().error().code, ErrorCode::Transport);
}

/// A description of a program's own, whose encoder refuses.
struct Unencodable {
  static constexpr std::uint16_t id = GetMachineInfo::id;
  static constexpr std::string_view name = "Unencodable";
  using Request = int;
  using Response = void;
  using Notification = void;
  static std::expected<std::vector<std::byte>, Error> encode(int) {
    return std::unexpected(Error{ErrorCode::Encode, "refused"});
  }
};

TEST_F(Call, SendsNothingThatCannotBeEncoded) {
  session.on_frame([](FrameDirection, std::span<const std::byte>) { FAIL() << "something was sent"; });
  EXPECT_EQ(call<Unencodable>(session, 0).get().error(), (Error{ErrorCode::Encode, "refused"}));
}

TEST_F(Call, SubscribesAndTellsWhatItCannotRead) {
  std::vector<std::string> told;
  std::promise<void> both;
  const auto listener = [&](const std::expected<GetMotorPositionNotification, Error>& notification) {
    told.push_back(notification ? get_motor_position_notification_to_json(*notification)
                                : notification.error().message);
    if (told.size() == 2) both.set_value();
  };
  const auto response =
      subscribe<GetMotorPosition>(session, {.automated_device_id = "AD1", .attached_motor_number = 1}, listener).get();
  ASSERT_TRUE(response) << response.error().message;
  both.get_future().get();
  EXPECT_THAT(told,
              ElementsAre("Not enough bytes for uint16", R"({"AutomatedDeviceID": "AD1", "AttachedMotorNumber": 1, )"
                                                         R"("ActualMotorPosition": 7, "SetMotorPosition": 9})"));
}

/// What a program with coroutines makes of the completion.
template <typename Command> struct Awaited {
  VorlinSession& session;
  std::optional<CallResult<Command>> result;

  bool await_ready() { return false; }
  void await_suspend(std::coroutine_handle<> waiting) {
    call<Command>(session, {}, [this, waiting](CallResult<Command> told) {
      result = std::move(told);
      waiting.resume();
    });
  }
  CallResult<Command> await_resume() { return std::move(*result); }
};

struct Task {
  struct Promise {
    Task get_return_object() { return {}; }
    std::suspend_never initial_suspend() { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
  using promise_type = Promise;
};

Task askTwice(VorlinSession& session, std::promise<std::string>& serial) {
  const auto nothing = co_await Awaited<NoOpCommand>{session, {}};
  const auto info = co_await Awaited<GetMachineInfo>{session, {}};
  serial.set_value(nothing && info ? info->serial_number : "none");
}

TEST_F(Call, ResumesACoroutine) {
  std::promise<std::string> serial;
  askTwice(session, serial);
  EXPECT_EQ(serial.get_future().get(), "SN");
}

} // namespace
} // namespace vorlinkit::test
