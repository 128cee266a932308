#pragma once
// The Record & Replay tools: the model asks the runtime app to record the user's own
// interactions (after the user approves), asks how the recording goes, and stops it. The
// runtime's session status comes back to the model as indented JSON.

#include "client/ComputerUseClient.h"
#include "contracts/EventStreamContracts.h"
#include "gateway/ToolCallError.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tavix {

inline constexpr std::string_view recordingConflictMessage =
    "Record & Replay is already recording for another session. Stop or discard it before starting a new "
    "recording.";

// The bounds a requested recording length is brought into, rather than refused.
inline constexpr int64_t minimumRecordingSeconds = 1;
inline constexpr int64_t maximumRecordingSeconds = 3600;

// "max_duration_seconds": a number (its integer part) or a text holding a base-10
// integer, clamped into the bounds; none when absent or unreadable. Never fails.
std::optional<int64_t> recordReplayDuration(const nlohmann::json &arguments);

// "screenshot_mode" when it is exactly one of the modes; anything else is ignored.
std::optional<ComputerUseIPCEventStreamScreenshotMode> recordReplayScreenshotMode(const nlohmann::json &arguments);

// The status for the model: its "errorMessage" as an error result when it has one, else
// the whole status as indented JSON.
ToolResult recordReplayResult(const ComputerUseIPCEventStreamSessionStatus &status);

// Each runs inside the call's request scope, whose session identifier names the host
// session that owns the recording.
ToolCallResult startRecording(const ComputerUseClient &client, const nlohmann::json &arguments);
ToolCallResult recordingStatus(const ComputerUseClient &client);
ToolCallResult stopRecording(const ComputerUseClient &client);

} // namespace tavix
