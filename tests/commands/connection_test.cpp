#include "Bytes.hpp"

#include <vorlinkit/commands/connection.hpp>

#include <gmock/gmock.h>

using namespace vorlinkit;
using namespace vorlinkit::commands;
using testing::ElementsAre;
using testing::Field;

TEST(Connection, ClientId) {
  EXPECT_EQ(decode_get_client_id_response(bytes("05"))->client_id, 5);
  const auto empty = decode_get_client_id_response({});
  ASSERT_FALSE(empty);
  EXPECT_EQ(empty.error(), (Error{ErrorCode::Decode, "Not enough bytes for uint8"}));
}

TEST(Connection, HeaderVersionsNeedTwoBytesEach) {
  EXPECT_EQ(get_header_versions_response_to_json(*decode_get_header_versions_response(bytes("0002 01 01 02 03"))),
            R"({"NumberOfHeaders": 2, "listOfHeaders": [{"HeaderType": 1, "HeaderVersion": 1}, )"
            R"({"HeaderType": 2, "HeaderVersion": 3}]})");
  EXPECT_EQ(decode_get_header_versions_response(bytes("0002 01 01 02")).error().message, "Not enough bytes for uint8");
}

TEST(Connection, ServerStatus) {
  const auto response = decode_get_server_status_response(bytes("0001 0000000100000002 FFFFFFFFFFFFFFFF"));
  EXPECT_EQ(response->system_controller_start_time, 0x0000000100000002U);
  EXPECT_EQ(get_server_status_response_to_json(*response),
            R"({"CommandError": 1, "CommandError_Desc": "Invalid Notification Level; ", )"
            R"("SystemControllerStartTime": 4294967298, "VORLINServerStartTime": 18446744073709551615})");
  EXPECT_EQ(get_server_status_notification_to_json(*decode_get_server_status_notification(bytes("03 4F4B00"))),
            R"json({"RestartStatus": 3, "RestartStatus_Desc": "Unknown value (0x0003)", "DetailedStatus": "OK"})json");
  // Cut inside the second half of a 64-bit number.
  EXPECT_EQ(decode_get_server_status_response(bytes("0000 0000000100000002 FFFFFFFFFFFFFF")).error().message,
            "Not enough bytes for uint32");
}

TEST(Connection, SoftwareVersionsAreListsInLists) {
  const auto response =
      decode_get_software_versions_response(bytes("4300 0001  5300 0002  4100 0001 78 00  4200 0000"));
  ASSERT_TRUE(response);
  EXPECT_EQ(
      get_software_versions_response_to_json(*response),
      R"({"CopyrightMessage": "C", "NumberOfComponents": 1, "listOfComponents": [{"ComponentName": "S", )"
      R"("NumberOfLists": 2, "listOfLists": [{"ListName": "A", "NumberOfItems": 1, "listOfItems": [{"Item": "x"}]}, )"
      R"({"ListName": "B", "NumberOfItems": 0, "listOfItems": []}]}]})");
}

TEST(Connection, RequestsBecomeBytes) {
  EXPECT_EQ(hex(*encode_is_command_supported_request({.command_id = 0x1234})), "12 34");
  EXPECT_EQ(hex(*encode_set_server_time_request({.timestamp = 0x0102030405060708})), "01 02 03 04 05 06 07 08");
  EXPECT_EQ(hex(*encode_flush_log_request({})), "00");
  EXPECT_EQ(hex(*encode_ui_log_in_out_request({.user_name = "Eve", .log_in_out = 1})), "45 76 65 00 01");
  EXPECT_EQ(flush_log_request_to_json({.log_name = "a\"b\\\n"}), "{\"LogName\": \"a\"b\\\n\"}");
}

TEST(Connection, ConstantsAreTheIds) {
  EXPECT_EQ(GET_CLIENT_ID_COMMAND_ID, 1);
  EXPECT_EQ(NO_OP_COMMAND_COMMAND_ID, 8);
  EXPECT_EQ(UI_LOG_IN_OUT_COMMAND_ID, 109);
}
