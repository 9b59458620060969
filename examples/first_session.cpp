// A first session with a machine: first_session [HOST] [PORT]
//
// Connects, learns its client id, asks who is there, takes and releases exclusive control, reads the clock and sets it
// to what was read, and watches a motor while other requests go on. Every message is printed as the one line of JSON
// that the library makes of it. On a real machine this moves nothing.

#include <vorlinkit/VorlinSession.hpp>
#include <vorlinkit/call.hpp>
#include <vorlinkit/commands.hpp>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <expected>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

namespace vc = vorlinkit::commands;

namespace {

constexpr std::chrono::seconds patience{10}; // for what the machine does by itself

[[noreturn]] void giveUp(const std::string& problem) {
  std::cerr << problem << '\n';
  std::exit(EXIT_FAILURE);
}

/// The value of a result. Nothing here can go on without it, so an error ends the program.
template <typename Result> auto valueOf(Result result) {
  if (!result) giveUp(result.error().message);
  return std::move(*result);
}

void show(const std::string& title, const std::string& json) { std::cout << title << ": " << json << '\n'; }

void introduce(vorlinkit::VorlinSession& session) {
  // The session takes note of the id and sends it with every request from now on.
  const auto id = valueOf(vorlinkit::call<vc::GetClientId>(session).get());
  show("client id", vc::get_client_id_response_to_json(id));
  const auto machine = valueOf(vorlinkit::call<vc::GetMachineInfo>(session).get());
  show("machine", vc::get_machine_info_response_to_json(machine));
}

void takeControl(vorlinkit::VorlinSession& session) {
  const auto control = valueOf(vorlinkit::call<vc::GetExclusiveControl>(session).get());
  show("take control", vc::get_exclusive_control_response_to_json(control));
  // A refusal is an ordinary answer; its bits have texts.
  if (control.command_error != 0) giveUp(vc::get_exclusive_control_command_error_string(control.command_error));
}

void releaseControl(vorlinkit::VorlinSession& session) {
  const auto control = valueOf(vorlinkit::call<vc::ReleaseExclusiveControl>(session).get());
  show("release control", vc::release_exclusive_control_response_to_json(control));
}

void setClockToItself(vorlinkit::VorlinSession& session) {
  const auto clock = valueOf(vorlinkit::call<vc::GetServerTime>(session).get());
  show("clock", vc::get_server_time_response_to_json(clock));
  const auto done = valueOf(vorlinkit::call<vc::SetServerTime>(session, {.timestamp = clock.timestamp}).get());
  show("set the clock", vc::set_server_time_response_to_json(done));
}

void watchMotor(vorlinkit::VorlinSession& session, const std::string& device, std::uint8_t motor) {
  using Notification = std::expected<vc::GetMotorPositionNotification, vorlinkit::Error>;
  // Listeners run on the session's own thread: they hand over what came and return at once.
  const auto first = std::make_shared<std::promise<Notification>>();
  const auto listener = [first, told = false](Notification notification) mutable {
    if (!std::exchange(told, true)) first->set_value(std::move(notification));
  };
  const vc::GetMotorPositionRequest request{
      .automated_device_id = device,
      .attached_motor_number = motor,
      .notification_level = 1, // any other value than 0 subscribes
  };
  const auto position = valueOf(vorlinkit::subscribe<vc::GetMotorPosition>(session, request, listener).get());
  show("motor", vc::get_motor_position_response_to_json(position));

  auto notification = first->get_future();
  if (notification.wait_for(patience) != std::future_status::ready) return show("notification", "none so far");
  show("notification", vc::get_motor_position_notification_to_json(valueOf(notification.get())));
}

} // namespace

int main(int argumentCount, char** arguments) {
  vorlinkit::SessionConfig config;
  if (argumentCount > 1) config.host = arguments[1];
  if (argumentCount > 2) config.port = static_cast<std::uint16_t>(std::stoul(arguments[2]));

  vorlinkit::VorlinSession session(config);
  if (const auto connected = session.connect().get(); !connected) giveUp(connected.error().message);
  introduce(session);
  takeControl(session);
  setClockToItself(session);
  watchMotor(session, "AD1", 1);
  releaseControl(session);
  session.disconnect();
}
