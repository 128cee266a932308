#pragma once
// Reading what the host sends with a "tools/call" besides the tool, and how the call
// appears in the log.

#include "contracts/ComputerUseRequests.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tavix {

// Where the host's turn context sits inside a request's "_meta".
inline constexpr std::string_view turnContextMetaKey = "com.tavix/turnContext";

// The host's session and turn: none unless "_meta" holds the context object with a
// non-blank "sessionId" text; a blank or missing "turnId" is left out. Both trimmed.
std::optional<ComputerUseHostTurnContext> readTurnContext(const nlohmann::json *meta);

// The "app" argument as a log field shows it: at most 120 characters and "...", or
// "<none>" when it is not text.
std::string appLogText(const nlohmann::json &arguments);

// A call's duration in whole milliseconds, rounded to the nearest.
int64_t roundedMilliseconds(std::chrono::steady_clock::duration elapsed);

} // namespace tavix
