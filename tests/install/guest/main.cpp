// Asks a machine who it is. The file has no padding in any type of its own, so a warning of some is of the guest's.
#include <vorlinkit/VorlinSession.hpp>
#include <vorlinkit/commands.hpp>

#include <cstdlib>
#include <iostream>

int main(int, char** arguments) {
  vorlinkit::SessionConfig config;
  config.host = arguments[1];
  config.port = static_cast<std::uint16_t>(std::atoi(arguments[2]));
  vorlinkit::VorlinSession session(config);
  if (!session.connect().get()) return 1;
  using namespace vorlinkit::commands;
  const auto answer = session.send(GET_MACHINE_INFO_COMMAND_ID).get();
  const auto response = answer ? decode_get_machine_info_response(answer->payload) : std::unexpected(answer.error());
  std::cout << (response ? get_machine_info_response_to_json(*response) : response.error().message) << '\n';
}
