#include "HandWritten.hpp"

#include <charconv>
#include <cstring>
#include <string_view>

namespace vorlinkit::benchmarks::by_hand {

namespace {

using namespace commands;

std::unexpected<Error> tooShort() { return std::unexpected(Error{ErrorCode::Decode, "payload too short"}); }

unsigned byteAt(Payload payload, std::size_t at) { return std::to_integer<unsigned>(payload[at]); }
std::uint16_t u16At(Payload payload, std::size_t at) {
  return static_cast<std::uint16_t>((byteAt(payload, at) << 8) | byteAt(payload, at + 1));
}

/// Takes a text off the front; false if it has no end.
bool takeText(Payload& payload, std::string& text) {
  const void* end = payload.empty() ? nullptr : std::memchr(payload.data(), 0, payload.size());
  if (end == nullptr) return false;
  const auto length = static_cast<std::size_t>(static_cast<const std::byte*>(end) - payload.data());
  text.assign(reinterpret_cast<const char*>(payload.data()), length);
  payload = payload.subspan(length + 1);
  return true;
}

template <typename Number> std::byte* put(std::byte* to, Number value) {
  for (int shift = 8 * (static_cast<int>(sizeof value) - 1); shift >= 0; shift -= 8)
    *to++ = static_cast<std::byte>(value >> shift);
  return to;
}

std::byte* put(std::byte* to, const std::string& text) {
  std::memcpy(to, text.c_str(), text.size() + 1);
  return to + text.size() + 1;
}

char* put(char* to, std::string_view text) {
  std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

char* putNumber(char* to, std::uint16_t value) { return std::to_chars(to, to + 5, value).ptr; }

/// "Success", or what the one known bit says.
char* putCommandError(char* to, std::uint16_t value, std::string_view known) {
  to = put(to, R"({"CommandError": )");
  to = putNumber(to, value);
  to = put(to, R"(, "CommandError_Desc": ")");
  if (value == 0) return put(to, R"(Success")");
  if (value & 1) to = put(put(to, known), "; ");
  if (value & ~1U) to = put(to, "Unknown; ");
  return put(to, "\"");
}

template <typename Write> std::string bounded(std::size_t bound, Write&& write) {
  std::string text;
  text.resize_and_overwrite(bound, [&](char* to, std::size_t) { return static_cast<std::size_t>(write(to) - to); });
  return text;
}

} // namespace

std::expected<SetServerTimeResponse, Error> decodeSetServerTime(Payload payload) {
  if (payload.size() < 2) return tooShort();
  return SetServerTimeResponse{u16At(payload, 0)};
}

std::expected<GetMachineInfoResponse, Error> decodeMachineInfo(Payload payload) {
  if (payload.size() < 2) return tooShort();
  std::expected<GetMachineInfoResponse, Error> info;
  info->interface_type = static_cast<std::uint8_t>(payload[0]);
  info->module_count = static_cast<std::uint8_t>(payload[1]);
  payload = payload.subspan(2);
  if (!takeText(payload, info->interface_version) || !takeText(payload, info->serial_number) ||
      !takeText(payload, info->machine_type))
    return tooShort();
  return info;
}

std::expected<GetAttachedMotorsResponse, Error> decodeMotors(Payload payload) {
  if (payload.size() < 2) return tooShort();
  std::expected<GetAttachedMotorsResponse, Error> motors;
  motors->command_error = u16At(payload, 0);
  payload = payload.subspan(2);
  if (!takeText(payload, motors->automated_device_id) || payload.empty()) return tooShort();
  motors->number_of_motors = static_cast<std::uint8_t>(payload[0]);
  payload = payload.subspan(1);
  if (payload.size() < 2U * motors->number_of_motors) return tooShort();
  motors->list_of_motors.reserve(motors->number_of_motors);
  for (std::size_t i = 0; i < motors->number_of_motors; ++i)
    motors->list_of_motors.push_back(
        {static_cast<std::uint8_t>(payload[2 * i]), static_cast<std::uint8_t>(payload[2 * i + 1])});
  return motors;
}

std::expected<GetSupportedCommandsResponse, Error> decodeSupportedCommands(Payload payload) {
  if (payload.size() < 2) return tooShort();
  std::expected<GetSupportedCommandsResponse, Error> supported;
  supported->number_of_commands = u16At(payload, 0);
  payload = payload.subspan(2);
  if (payload.size() < 2U * supported->number_of_commands) return tooShort();
  supported->list_of_commands.resize(supported->number_of_commands);
  for (std::size_t i = 0; i < supported->number_of_commands; ++i)
    supported->list_of_commands[i].command_id = u16At(payload, 2 * i);
  return supported;
}

Encoded encodeSetServerTime(const SetServerTimeRequest& request) {
  std::vector<std::byte> bytes(8);
  put(bytes.data(), request.timestamp);
  return bytes;
}

Encoded encodeMotors(const GetAttachedMotorsRequest& request) {
  std::vector<std::byte> bytes(request.automated_device_id.size() + 1);
  put(bytes.data(), request.automated_device_id);
  return bytes;
}

Encoded encodeResetUsageCounts(const ResetUsageCountsRequest& request) {
  std::size_t size = 3;
  for (const auto& component : request.list_of_components)
    size += component.component_id.size() + 1;
  std::vector<std::byte> bytes(size);
  auto* to = put(put(bytes.data(), request.usage_count_type), request.number_of_components);
  for (const auto& component : request.list_of_components)
    to = put(to, component.component_id);
  return bytes;
}

Encoded encodeChunk(const SendUpdatePackageChunkRequest& request) {
  std::vector<std::byte> bytes(request.package_id.size() + 9 + request.chunk.size());
  auto* to = put(put(put(bytes.data(), request.package_id), request.chunk_number), request.chunk_size);
  std::memcpy(to, request.chunk.data(), request.chunk.size());
  return bytes;
}

std::string toJson(const SetServerTimeResponse& response) {
  return bounded(100,
                 [&](char* to) { return put(putCommandError(to, response.command_error, "Time cannot be set"), "}"); });
}

std::string toJson(const GetMachineInfoResponse& response) {
  const std::size_t texts =
      response.interface_version.size() + response.serial_number.size() + response.machine_type.size();
  return bounded(120 + texts, [&](char* to) {
    to = putNumber(put(to, R"({"InterfaceType": )"), response.interface_type);
    to = putNumber(put(to, R"(, "ModuleCount": )"), response.module_count);
    to = put(put(to, R"(, "InterfaceVersion": ")"), response.interface_version);
    to = put(put(to, R"(", "SerialNumber": ")"), response.serial_number);
    to = put(put(to, R"(", "MachineType": ")"), response.machine_type);
    return put(to, "\"}");
  });
}

std::string toJson(const GetAttachedMotorsResponse& response) {
  const std::size_t bound = 200 + response.automated_device_id.size() + 55 * response.list_of_motors.size();
  return bounded(bound, [&](char* to) {
    to = putCommandError(to, response.command_error, "Invalid Automated Device ID");
    to = put(put(to, R"(, "AutomatedDeviceID": ")"), response.automated_device_id);
    to = putNumber(put(to, R"(", "NumberOfMotors": )"), response.number_of_motors);
    to = put(to, R"(, "listOfMotors": [)");
    for (std::size_t i = 0; i < response.list_of_motors.size(); ++i) {
      const auto& motor = response.list_of_motors[i];
      if (i != 0) to = put(to, ", ");
      to = putNumber(put(to, R"({"AttachedMotorNumber": )"), motor.attached_motor_number);
      to = putNumber(put(to, R"(, "MotorType": )"), motor.motor_type);
      *to++ = '}';
    }
    return put(to, "]}");
  });
}

std::string toJson(const GetSupportedCommandsResponse& response) {
  return bounded(60 + 25 * response.list_of_commands.size(), [&](char* to) {
    to = putNumber(put(to, R"({"NumberOfCommands": )"), response.number_of_commands);
    to = put(to, R"(, "listOfCommands": [)");
    for (std::size_t i = 0; i < response.list_of_commands.size(); ++i) {
      if (i != 0) to = put(to, ", ");
      to = putNumber(put(to, R"({"CommandID": )"), response.list_of_commands[i].command_id);
      *to++ = '}';
    }
    return put(to, "]}");
  });
}

} // namespace vorlinkit::benchmarks::by_hand
