// The server's "tools/call": the correlation id every log line of the call carries, the
// host's turn context, the start and end of the call in the log, the outcome as a tool
// result (never a JSON-RPC error), and the heartbeat that the first connection starts.

#include "mcp/ToolsCall.h"

#include "logging/Logger.h"
#include "mcp/ComputerUseMCPServer.h"
#include "support/RequestContext.h"
#include "support/UserPerceivedText.h"
#include "support/Uuid.h"
#include "support/Whitespace.h"

#include <chrono>
#include <cmath>
#include <exception>

namespace tavix {
namespace {

constexpr size_t appLogCharacters = 120;

std::optional<std::string> trimmedText(const nlohmann::json &object, std::string_view key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_string())
    return std::nullopt;
  return trimmedNonEmpty(&found->get_ref<const std::string &>());
}

} // namespace

int64_t roundedMilliseconds(std::chrono::steady_clock::duration elapsed) {
  return std::llround(std::chrono::duration<double, std::milli>(elapsed).count());
}

std::optional<ComputerUseHostTurnContext> readTurnContext(const nlohmann::json *meta) {
  if (meta == nullptr || !meta->is_object())
    return std::nullopt;
  const auto context = meta->find(turnContextMetaKey);
  if (context == meta->end() || !context->is_object())
    return std::nullopt;
  auto sessionId = trimmedText(*context, "sessionId");
  if (!sessionId)
    return std::nullopt;
  return ComputerUseHostTurnContext{std::move(*sessionId), trimmedText(*context, "turnId")};
}

std::string appLogText(const nlohmann::json &arguments) {
  const auto app = arguments.find("app");
  if (app == arguments.end() || !app->is_string())
    return "<none>";
  const std::string &text = app->get_ref<const std::string &>();
  const size_t kept = prefixLengthForCharacters(text, appLogCharacters);
  return kept == text.size() ? text : text.substr(0, kept) + "...";
}

void ComputerUseMCPServer::handleToolsCall(const JSONRPCRequest &request, JSONRPCReply reply) {
  const auto context = RequestContext::current();
  if (!context->correlationID().empty())
    return handleCorrelatedToolsCall(request, std::move(reply));
  WithRequestContext correlated(context->withCorrelationID(makeUUIDString()));
  handleCorrelatedToolsCall(request, std::move(reply));
}

void ComputerUseMCPServer::handleCorrelatedToolsCall(const JSONRPCRequest &request, JSONRPCReply reply) {
  static const nlohmann::json emptyObject = nlohmann::json::object();
  const nlohmann::json &params = request.params ? *request.params : emptyObject;
  const auto name = params.find("name");
  if (name == params.end() || !name->is_string())
    return reply.error(JSONRPCError::invalidParamsCode, JSONRPCError::missingToolNameMessage);
  const std::string &tool = name->get_ref<const std::string &>();
  const auto found = params.find("arguments");
  const nlohmann::json &arguments = found != params.end() && found->is_object() ? *found : emptyObject;
  const auto meta = params.find("_meta");
  const auto turnContext = readTurnContext(meta != params.end() ? &*meta : nullptr);

  const auto start = std::chrono::steady_clock::now();
  const bool wasConnected = client_ && client_->hasEstablishedConnection();
  Log::info(LogCategory::transport, "tool_call_started",
            {{"tool", tool},
             {"mcpRequestID", request.id ? request.id->text() : "notification"},
             {"appBundleID", appLogText(arguments)}});

  ToolResult result = runTool(tool, arguments, turnContext, start);
  // The first call that reaches the runtime app starts the heartbeat.
  if (heartbeat_ && !wasConnected && client_->hasEstablishedConnection())
    heartbeat_->startIfNeeded();
  reply(std::move(result).toJSON());
}

ToolResult ComputerUseMCPServer::runTool(const std::string &tool, const nlohmann::json &arguments,
                                         const std::optional<ComputerUseHostTurnContext> &turnContext,
                                         std::chrono::steady_clock::time_point start) {
  const auto finished = [&](LogLevel level, std::string_view outcome, LogFields fields = {}) {
    fields.emplace("tool", tool);
    fields.emplace("durationMs", roundedMilliseconds(std::chrono::steady_clock::now() - start));
    fields.emplace("outcome", outcome);
    Log::log(level, LogCategory::transport, "tool_call_finished", fields);
  };
  ToolCallResult result;
  try {
    result = tools_->dispatch(tool, arguments, turnContext);
  } catch (const std::exception &exception) {
    // Whatever goes wrong inside a tool is still the model's to read as a result.
    finished(LogLevel::error, "internal_error", {{"error", LogError{"std::exception", "tavix.tools", 0}}});
    return ToolResult::error(std::string("Internal error: ") + exception.what(), ComputerUseFailure::unknownError());
  } catch (...) {
    finished(LogLevel::error, "internal_error", {{"error", LogError{"unknown", "tavix.tools", 0}}});
    return ToolResult::error("Internal error: an unknown exception", ComputerUseFailure::unknownError());
  }
  if (!result) {
    const ToolCallError &error = result.error();
    if (std::holds_alternative<ToolError>(error)) {
      finished(LogLevel::warning, "tool_error", {{"error", logError(error)}});
      return ToolResult::error(describe(error), failureFrom(error));
    }
    finished(LogLevel::error, "internal_error", {{"error", logError(error)}});
    return ToolResult::error("Internal error: " + describe(error), failureFrom(error));
  }
  finished(LogLevel::info, result->isError ? "tool_error" : "success");
  return std::move(*result);
}

} // namespace tavix
