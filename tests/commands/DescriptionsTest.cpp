#include <vorlinkit/commands/connection.hpp>
#include <vorlinkit/commands/every_kind.hpp>

#include <gmock/gmock.h>

using namespace vorlinkit::commands;

TEST(Descriptions, FollowTheTable) {
  const struct {
    std::string (*describe)(std::uint16_t);
    std::uint16_t value;
    const char* text;
  } cases[] = {
      {flush_log_command_error_string, 0, "Success"},
      {flush_log_command_error_string, 1, "Invalid log name; "},
      {flush_log_command_error_string, 3, "Invalid log name; Couldn't flush log; "},
      {flush_log_command_error_string, 0x0100, "Unknown (0x0100); "},
      {forced_get_exclusive_control_with_user_command_error_string, 6, "Invalid User Name; Unknown (0x0002); "},
      {get_server_time_with_notifications_command_error_string, 0xFFFF, "Unknown (0xFFFF); "},
      // A row of several bits is there for each of them, in the order of the table.
      {codes_command_error_string, 1, "First; Either; "},
      {codes_command_error_string, 2, "Second; Either; "},
      {codes_command_error_string, 0x8103, "First; Second; Either; Quoted \"text\"; Unknown (0x8000); "},
      {reversed_command_error_string, 3, "Invalid params; Capture failed; "},
      {get_server_status_restart_status_string, 0, "Manual VORLIN Shut Down"},
      {get_server_status_restart_status_string, 2, "System Controler Restart"},
      {get_server_status_restart_status_string, 3, "Unknown value (0x0003)"},
      {codes_mode_string, 0, "Unknown value (0x0000)"},
      {codes_mode_string, 2, "Operator\xE2\x80\x99s view"},
      {codes_mode_string, 0xABCD, "Unknown value (0xABCD)"},
  };
  for (const auto& [describe, value, text] : cases)
    EXPECT_EQ(describe(value), text) << value;
}
