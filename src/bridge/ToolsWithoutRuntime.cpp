#include "bridge/ToolsWithoutRuntime.h"

#include "gateway/ToolCatalogue.h"

namespace tavix {

const nlohmann::json &ToolsWithoutRuntime::list() const { return toolDefinitions(mode_); }

ToolCallResult ToolsWithoutRuntime::dispatch(const std::string &, const nlohmann::json &,
                                             const std::optional<ComputerUseHostTurnContext> &) {
  return ToolResult::error("Internal error: tool dispatch is not available in this build of the bridge.",
                           std::nullopt);
}

} // namespace tavix
