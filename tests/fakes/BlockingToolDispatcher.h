#pragma once
// Tools whose calls block until the test releases them or the call is
// cancelled, so that tests can hold requests in flight.

#include "fakes/ReleaseGate.h"
#include "gateway/MCPTools.h"
#include "logging/Logger.h"
#include "support/RequestContext.h"

namespace tavix::test {

class BlockingToolDispatcher final : public MCPTools, public ReleaseGate {
public:
  const nlohmann::json &list() const override {
    static const nlohmann::json none = nlohmann::json::array();
    return none;
  }
  // A text result naming the tool, its arguments and whether the call was cancelled.
  ToolCallResult dispatch(const std::string &toolName, const nlohmann::json &arguments,
                          const std::optional<ComputerUseHostTurnContext> &) override {
    const auto context = RequestContext::current();
    Log::info(LogCategory::tools, "test_tool_dispatched", {{"tool", toolName}});
    const bool cancelled = pass(toolName, context->correlationID(), context->cancellation());
    return ToolResult::text(toolName + " " + arguments.dump() + (cancelled ? " cancelled" : ""));
  }
};

} // namespace tavix::test
