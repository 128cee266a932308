#pragma once
// The words after the program name choose what the bridge serves.

#include "gateway/MCPServerMode.h"

#include <optional>
#include <string>
#include <vector>

namespace tavix {

// "mcp" or "event-stream" "mcp", compared exactly as a whole list; anything else
// (extra words included) is no mode.
std::optional<MCPServerMode> parseBridgeMode(const std::vector<std::string> &modeWords);

} // namespace tavix
