#include "bridge/ModeWords.h"

namespace tavix {

std::optional<MCPServerMode> parseBridgeMode(const std::vector<std::string> &modeWords) {
  if (modeWords == std::vector<std::string>{"mcp"})
    return MCPServerMode::computerUse;
  if (modeWords == std::vector<std::string>{"event-stream", "mcp"})
    return MCPServerMode::recordReplay;
  return std::nullopt;
}

} // namespace tavix
