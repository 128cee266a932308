#pragma once
// The tools of a bridge that cannot reach a runtime app yet: the catalogue of its mode,
// and an error result for every call that says so.

#include "gateway/MCPServerMode.h"
#include "gateway/MCPTools.h"

namespace tavix {

class ToolsWithoutRuntime final : public MCPTools {
public:
  explicit ToolsWithoutRuntime(MCPServerMode mode) : mode_(mode) {}

  const nlohmann::json &list() const override;
  ToolCallResult dispatch(const std::string &toolName, const nlohmann::json &arguments,
                          const std::optional<ComputerUseHostTurnContext> &turnContext) override;

private:
  const MCPServerMode mode_;
};

} // namespace tavix
