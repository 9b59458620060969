// The coders of a few messages as somebody would write them by hand, for just these messages, with care:
// checked reads, one allocation, JSON stored into one buffer of bounded size. Same types as the library's.
#pragma once

#include <vorlinkit/Error.hpp>
#include <vorlinkit/commands.hpp>

#include <cstddef>
#include <expected>
#include <span>
#include <string>
#include <vector>

namespace vorlinkit::benchmarks::by_hand {

using Payload = std::span<const std::byte>;
using Encoded = std::expected<std::vector<std::byte>, Error>;

std::expected<commands::SetServerTimeResponse, Error> decodeSetServerTime(Payload payload);
std::expected<commands::GetMachineInfoResponse, Error> decodeMachineInfo(Payload payload);
std::expected<commands::GetAttachedMotorsResponse, Error> decodeMotors(Payload payload);
std::expected<commands::GetSupportedCommandsResponse, Error> decodeSupportedCommands(Payload payload);

Encoded encodeSetServerTime(const commands::SetServerTimeRequest& request);
Encoded encodeMotors(const commands::GetAttachedMotorsRequest& request);
Encoded encodeResetUsageCounts(const commands::ResetUsageCountsRequest& request);
Encoded encodeChunk(const commands::SendUpdatePackageChunkRequest& request);

std::string toJson(const commands::SetServerTimeResponse& response);
std::string toJson(const commands::GetMachineInfoResponse& response);
std::string toJson(const commands::GetAttachedMotorsResponse& response);
std::string toJson(const commands::GetSupportedCommandsResponse& response);

} // namespace vorlinkit::benchmarks::by_hand
