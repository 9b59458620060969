// A first session with a machine: first_session [HOST] [PORT]
//
// Connects, learns its client id, asks who is there, takes and releases exclusive control, reads the clock and sets it
// to what was read, and watches a motor while other requests go on. Every message is printed as the one line of JSON
// that the library makes of it. On a real machine this moves nothing.

#include <vorlinkit/VorlinSession.hpp>
#include <vorlinkit/commands.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <span>
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

/// Sends a request and waits for its answer. Any thread may do so, except the session's own.
vorlinkit::RawMessage ask(vorlinkit::VorlinSession& session, std::uint16_t commandId,
                          std::span<const std::byte> payload = {}) {
  return valueOf(session.send(commandId, payload).get());
}

void introduce(vorlinkit::VorlinSession& session) {
  // The session takes note of the id and sends it with every request from now on.
  const auto id = ask(session, vc::GET_CLIENT_ID_COMMAND_ID);
  show("client id", vc::get_client_id_response_to_json(valueOf(vc::decode_get_client_id_response(id.payload))));
  const auto machine = ask(session, vc::GET_MACHINE_INFO_COMMAND_ID);
  show("machine",
       vc::get_machine_info_response_to_json(valueOf(vc::decode_get_machine_info_response(machine.payload))));
}

void takeControl(vorlinkit::VorlinSession& session) {
  const auto answer = ask(session, vc::GET_EXCLUSIVE_CONTROL_COMMAND_ID);
  const auto control = valueOf(vc::decode_get_exclusive_control_response(answer.payload));
  show("take control", vc::get_exclusive_control_response_to_json(control));
  // A refusal is an ordinary answer; its bits have texts.
  if (control.command_error != 0) giveUp(vc::get_exclusive_control_command_error_string(control.command_error));
}

void releaseControl(vorlinkit::VorlinSession& session) {
  const auto answer = ask(session, vc::RELEASE_EXCLUSIVE_CONTROL_COMMAND_ID);
  const auto control = valueOf(vc::decode_release_exclusive_control_response(answer.payload));
  show("release control", vc::release_exclusive_control_response_to_json(control));
}

void setClockToItself(vorlinkit::VorlinSession& session) {
  const auto answer = ask(session, vc::GET_SERVER_TIME_COMMAND_ID);
  const auto clock = valueOf(vc::decode_get_server_time_response(answer.payload));
  show("clock", vc::get_server_time_response_to_json(clock));

  const vc::SetServerTimeRequest request{.timestamp = clock.timestamp};
  const auto done = ask(session, vc::SET_SERVER_TIME_COMMAND_ID, valueOf(vc::encode_set_server_time_request(request)));
  show("set the clock",
       vc::set_server_time_response_to_json(valueOf(vc::decode_set_server_time_response(done.payload))));
}

void watchMotor(vorlinkit::VorlinSession& session, const std::string& device, std::uint8_t motor) {
  // Handlers run on the session's own thread: they hand over what came and return at once. A message may be kept.
  const auto first = std::make_shared<std::promise<vorlinkit::RawMessage>>();
  session.on_notification(vc::GET_MOTOR_POSITION_COMMAND_ID,
                          [first, told = false](const vorlinkit::RawMessage& message) mutable {
                            if (!std::exchange(told, true)) first->set_value(message);
                          });

  const vc::GetMotorPositionRequest request{
      .automated_device_id = device,
      .attached_motor_number = motor,
      .notification_level = 1, // any other value than 0 subscribes
  };
  const auto payload = valueOf(vc::encode_get_motor_position_request(request));
  const auto answer = ask(session, vc::GET_MOTOR_POSITION_COMMAND_ID, payload);
  show("motor",
       vc::get_motor_position_response_to_json(valueOf(vc::decode_get_motor_position_response(answer.payload))));

  auto notification = first->get_future();
  if (notification.wait_for(patience) != std::future_status::ready) return show("notification", "none so far");
  const auto told = valueOf(vc::decode_get_motor_position_notification(notification.get().payload));
  show("notification", vc::get_motor_position_notification_to_json(told));
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
