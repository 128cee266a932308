#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tavix {

// What the bridge runs, chosen by the words after the program name.
enum class BridgeMode { computerUse, recordReplay };

// "mcp" or "event-stream" "mcp", compared exactly as a whole list; anything else
// (extra words included) is no mode.
std::optional<BridgeMode> parseBridgeMode(const std::vector<std::string> &modeWords);

} // namespace tavix
