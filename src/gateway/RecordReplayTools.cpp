#include "gateway/RecordReplayTools.h"

#include "gateway/MCPToolRequestScope.h"
#include "support/JSON.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace tavix {
namespace {

int64_t clampedSeconds(int64_t seconds) {
  return std::clamp(seconds, minimumRecordingSeconds, maximumRecordingSeconds);
}

// A number's integer part, clamped; in floating point first, so that no value overflows.
int64_t clampedSeconds(const nlohmann::json &number) {
  if (number.is_number_unsigned())
    return clampedSeconds(static_cast<int64_t>(
        std::min<uint64_t>(number.get<uint64_t>(), static_cast<uint64_t>(maximumRecordingSeconds))));
  if (number.is_number_integer())
    return clampedSeconds(number.get<int64_t>());
  const double truncated = std::trunc(number.get<double>());
  return static_cast<int64_t>(std::clamp(truncated, double(minimumRecordingSeconds), double(maximumRecordingSeconds)));
}

// An optional sign and decimal digits, nothing else, within 64 bits.
std::optional<int64_t> parseDecimalInteger(std::string_view text) {
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-'))
      return std::nullopt;
  }
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return value;
}

ClientResult<ComputerUseIPCEventStreamSessionStatus> currentStatus(const ComputerUseClient &client) {
  return client.send(ComputerUseIPCEventStreamStatusRequest{});
}

ToolCallResult resultOf(ClientResult<ComputerUseIPCEventStreamSessionStatus> status) {
  if (!status)
    return tl::unexpected(ToolCallError(std::move(status.error())));
  return recordReplayResult(*status);
}

} // namespace

std::optional<int64_t> recordReplayDuration(const nlohmann::json &arguments) {
  const auto found = arguments.find("max_duration_seconds");
  if (found == arguments.end())
    return std::nullopt;
  // The host's number objects include booleans, as 1 and 0.
  if (found->is_boolean())
    return clampedSeconds(found->get<bool>() ? 1 : 0);
  if (found->is_number())
    return clampedSeconds(*found);
  if (found->is_string())
    if (const auto parsed = parseDecimalInteger(found->get_ref<const std::string &>()))
      return clampedSeconds(*parsed);
  return std::nullopt;
}

std::optional<ComputerUseIPCEventStreamScreenshotMode> recordReplayScreenshotMode(const nlohmann::json &arguments) {
  const auto found = arguments.find("screenshot_mode");
  if (found == arguments.end() || !found->is_string())
    return std::nullopt;
  return fromRawValue<ComputerUseIPCEventStreamScreenshotMode>(found->get_ref<const std::string &>());
}

ToolResult recordReplayResult(const ComputerUseIPCEventStreamSessionStatus &status) {
  if (status.errorMessage && !status.errorMessage->empty())
    return ToolResult::error(*status.errorMessage, std::nullopt);
  return ToolResult::text(prettyJSON(status.toJSON()).value_or("{}"));
}

ToolCallResult startRecording(const ComputerUseClient &client, const nlohmann::json &arguments) {
  const auto status = currentStatus(client);
  if (!status)
    return tl::unexpected(ToolCallError(status.error()));
  const auto sessionId = MCPToolRequestScope::sessionId();
  if (status->isRecording) {
    if (status->sessionId && sessionId && *status->sessionId != *sessionId)
      return ToolResult::error(std::string(recordingConflictMessage), std::nullopt);
    // Starting twice in one session reports the recording in progress.
    return recordReplayResult(*status);
  }
  ComputerUseIPCEventStreamStartRequest start;
  start.sessionId = sessionId;
  start.maxDurationSeconds = recordReplayDuration(arguments);
  start.screenshotMode = recordReplayScreenshotMode(arguments);
  return resultOf(client.send(start));
}

ToolCallResult recordingStatus(const ComputerUseClient &client) { return resultOf(currentStatus(client)); }

ToolCallResult stopRecording(const ComputerUseClient &client) {
  return resultOf(client.send(ComputerUseIPCEventStreamStopRequest{ComputerUseIPCEventStreamEndReason::toolStopped}));
}

} // namespace tavix
