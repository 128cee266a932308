#pragma once
// The one place where a tool call named by the model becomes work for the runtime app:
// it reads the call's arguments, builds one request, sends it through the client and
// turns the answer into the tool's result, with the advice the model is due.

#include "client/ComputerUseClient.h"
#include "gateway/AppInstructionProvider.h"
#include "gateway/InstructionDeliveryState.h"
#include "gateway/MCPServerMode.h"
#include "gateway/MCPTools.h"
#include "gateway/ToolArguments.h"
#include "platform/Environment.h"

#include <memory>
#include <string>
#include <string_view>

namespace tavix {

class MCPToolGateway final : public MCPTools {
public:
  // `client` is never null. Every tool is reachable in either mode: the mode decides only
  // what the list shows.
  MCPToolGateway(MCPServerMode mode, std::shared_ptr<const ComputerUseClient> client,
                 AppInstructionProvider instructions = AppInstructionProvider::forCurrentUser(),
                 EnvironmentLookup environment = processEnvironment());

  const nlohmann::json &list() const override;

  // Tells the runtime app which host turn the call belongs to, then runs the tool inside
  // the call's session scope. An unknown name is an error result, not an error.
  ToolCallResult dispatch(const std::string &toolName, const nlohmann::json &arguments,
                          const std::optional<ComputerUseHostTurnContext> &turnContext) override;

  // One action for one app, in the current call's session. Taken by value: a paste's text
  // moves into the request instead of being copied.
  ToolCallResult sendAction(std::string app, ComputerUseIPCAction action) const;
  ToolCallResult getAppState(const nlohmann::json &arguments);
  ToolCallResult listApps() const;

  // Adds the app's instructions to a "get_app_state" result the first time the app is seen.
  void injectAppSpecificInstructionsIfNeeded(ToolResult &result, std::string_view appQuery);
  // Puts the instructions block in front of the "<app_state>" item, or first without one.
  static void injectAppSpecificInstructions(const std::string &instructions, ToolResult &result);

private:
  void observeHostSession(const ComputerUseHostTurnContext &turnContext) const;
  ToolCallResult run(const std::string &toolName, const nlohmann::json &arguments);
  ToolCallResult runAction(ActionReader read, const nlohmann::json &arguments) const;

  const MCPServerMode mode_;
  const std::shared_ptr<const ComputerUseClient> client_;
  const AppInstructionProvider instructions_;
  const EnvironmentLookup environment_;
  AppInstructionDeliveryState appInstructionDelivery_;
  ComputerUseInstructionDeliveryState guideDelivery_;
};

} // namespace tavix
