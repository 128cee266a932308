#include "bridge/BridgeMode.h"

namespace tavix {

std::optional<BridgeMode> parseBridgeMode(const std::vector<std::string> &modeWords) {
  if (modeWords == std::vector<std::string>{"mcp"})
    return BridgeMode::computerUse;
  if (modeWords == std::vector<std::string>{"event-stream", "mcp"})
    return BridgeMode::recordReplay;
  return std::nullopt;
}

} // namespace tavix
