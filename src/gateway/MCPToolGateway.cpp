#include "gateway/MCPToolGateway.h"

#include "gateway/AppQueryResolution.h"
#include "gateway/BuiltInInstructions.h"
#include "gateway/MCPToolRequestScope.h"
#include "gateway/RecordReplayTools.h"
#include "gateway/ToolCatalogue.h"
#include "logging/Logger.h"

#include <cassert>
#include <utility>

namespace tavix {
namespace {

constexpr std::string_view appStateMarker = "<app_state>";

ToolCallResult toolResultOf(ClientResult<ComputerUseIPCToolResultResponse> response) {
  if (!response)
    return tl::unexpected(ToolCallError(std::move(response.error())));
  return std::move(*response).toToolResult();
}

} // namespace

MCPToolGateway::MCPToolGateway(MCPServerMode mode, std::shared_ptr<const ComputerUseClient> client,
                               AppInstructionProvider instructions, EnvironmentLookup environment)
    : mode_(mode), client_(std::move(client)), instructions_(std::move(instructions)),
      environment_(std::move(environment)), guideDelivery_(computerUseGuide()) {
  assert(client_ != nullptr);
}

const nlohmann::json &MCPToolGateway::list() const { return toolDefinitions(mode_); }

ToolCallResult MCPToolGateway::dispatch(const std::string &toolName, const nlohmann::json &arguments,
                                        const std::optional<ComputerUseHostTurnContext> &turnContext) {
  if (turnContext)
    observeHostSession(*turnContext);
  auto sessionId = recordReplaySessionId(arguments, environment_);
  MCPToolRequestScope scope(sessionId);
  auto result = run(toolName, arguments);
  if (!result)
    return result;
  return guideDelivery_.prependIfNeeded(std::move(*result), sessionId);
}

void MCPToolGateway::observeHostSession(const ComputerUseHostTurnContext &turnContext) const {
  // Which turn the actions belong to is bookkeeping for the runtime app; when it cannot
  // be told, the user's tool call still runs, and reports any failure of its own.
  const auto observed = client_->send(ComputerUseIPCHostSessionObserveRequest{turnContext});
  if (!observed && !std::holds_alternative<CancellationError>(observed.error()))
    Log::warning(LogCategory::session, "host_session_observe_failed", {{"error", logError(observed.error())}});
}

ToolCallResult MCPToolGateway::run(const std::string &toolName, const nlohmann::json &arguments) {
  if (toolName == "list_apps")
    return listApps();
  if (toolName == "get_app_state")
    return getAppState(arguments);
  if (const ActionReader read = actionReader(toolName))
    return runAction(read, arguments);
  if (toolName == "event_stream_start")
    return startRecording(*client_, arguments);
  if (toolName == "event_stream_status")
    return recordingStatus(*client_);
  if (toolName == "event_stream_stop")
    return stopRecording(*client_);
  return ToolResult::error("Unknown tool: " + toolName, std::nullopt);
}

ToolCallResult MCPToolGateway::runAction(ActionReader read, const nlohmann::json &arguments) const {
  auto action = read(arguments);
  if (!action)
    return tl::unexpected(ToolCallError(std::move(action.error())));
  return sendAction(std::move(action->app), std::move(action->action));
}

ToolCallResult MCPToolGateway::listApps() const { return toolResultOf(client_->send(ComputerUseIPCListAppsRequest{})); }

ToolCallResult MCPToolGateway::sendAction(std::string app, ComputerUseIPCAction action) const {
  ComputerUseIPCAppPerformActionRequest request;
  request.app = std::move(app);
  request.action = std::move(action);
  request.sessionId = MCPToolRequestScope::sessionId();
  return toolResultOf(client_->send(request));
}

ToolCallResult MCPToolGateway::getAppState(const nlohmann::json &arguments) {
  auto app = readGetAppStateArguments(arguments);
  if (!app)
    return tl::unexpected(ToolCallError(std::move(app.error())));
  ComputerUseIPCAppGetStateRequest request;
  request.app = *app;
  request.sessionId = MCPToolRequestScope::sessionId();
  auto result = toolResultOf(client_->send(request));
  if (result)
    injectAppSpecificInstructionsIfNeeded(*result, *app);
  return result;
}

void MCPToolGateway::injectAppSpecificInstructionsIfNeeded(ToolResult &result, std::string_view appQuery) {
  // A state that could not be read is no occasion for advice, and keeps it for the next.
  if (result.isError)
    return;
  const ResolvedApp app = resolveAppQuery(appQuery);
  if (!appInstructionDelivery_.deliverIfNeeded(deliveryKey(app)))
    return;
  const auto bundleIdentifier =
      app.bundleIdentifier ? std::optional<std::string_view>(*app.bundleIdentifier) : std::nullopt;
  if (const auto text = instructions_.instructions(bundleIdentifier, app.name))
    injectAppSpecificInstructions(*text, result);
}

void MCPToolGateway::injectAppSpecificInstructions(const std::string &instructions, ToolResult &result) {
  auto block = ToolResultContent::text("<app_specific_instructions>\n" + instructions + "\n</app_specific_instructions>");
  auto position = result.content.begin();
  for (auto item = result.content.begin(); item != result.content.end(); ++item)
    if (const auto *text = std::get_if<ToolResultContent::Text>(&item->value); text && text->text == appStateMarker) {
      position = item;
      break;
    }
  result.content.insert(position, std::move(block));
}

} // namespace tavix
