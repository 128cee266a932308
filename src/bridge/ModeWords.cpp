#include "bridge/ModeWords.h"

namespace tavix {

std::optional<BridgeMode> parseBridgeMode(const std::vector<std::string> &modeWords) {
  if (modeWords == std::vector<std::string>{"mcp"})
    return BridgeMode::computerUse;
  if (modeWords == std::vector<std::string>{"event-stream", "mcp"})
    return BridgeMode::recordReplay;
  if (modeWords == std::vector<std::string>{"appshot-stdio"})
    return BridgeMode::appshot;
  return std::nullopt;
}

std::optional<MCPServerMode> mcpServerMode(BridgeMode mode) {
  switch (mode) {
  case BridgeMode::computerUse:
    return MCPServerMode::computerUse;
  case BridgeMode::recordReplay:
    return MCPServerMode::recordReplay;
  case BridgeMode::appshot:
    break;
  }
  return std::nullopt;
}

} // namespace tavix
