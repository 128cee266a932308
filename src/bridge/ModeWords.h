#pragma once
// The words after the program name choose what the bridge serves.

#include "gateway/MCPServerMode.h"

#include <optional>
#include <string>
#include <vector>

namespace tavix {

enum class BridgeMode {
  computerUse,  // "mcp"
  recordReplay, // "event-stream" "mcp"
  appshot,      // "appshot-stdio"
};

// The mode the words name, compared exactly as a whole list; anything else (extra words
// included) is no mode.
std::optional<BridgeMode> parseBridgeMode(const std::vector<std::string> &modeWords);

// The MCP server mode of an MCP bridge mode; nothing for the appshot mode.
std::optional<MCPServerMode> mcpServerMode(BridgeMode mode);

} // namespace tavix
