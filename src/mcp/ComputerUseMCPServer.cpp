#include "mcp/ComputerUseMCPServer.h"

#include "gateway/ToolCatalogue.h"
#include "mcp/StdioTransport.h"
#include "logging/Logger.h"

#include <unistd.h>

namespace tavix {
namespace {

constexpr std::string_view toolDispatchUnavailableMessage =
    "Internal error: tool dispatch is not available in this build of the bridge.";

} // namespace

ComputerUseMCPServer::ComputerUseMCPServer(Mode mode, std::shared_ptr<MCPToolDispatcher> tools)
    : mode_(mode), tools_(std::move(tools)) {}

std::string_view ComputerUseMCPServer::serverName() const {
  return mode_ == Mode::computerUse ? "computer-use" : "record-and-replay";
}

std::optional<nlohmann::json> ComputerUseMCPServer::handleRequest(const JSONRPCRequest &request) {
  const std::string &method = request.method;
  if (method == "initialize")
    return handleInitialize(request);
  if (method == "notifications/initialized")
    return std::nullopt;
  if (method == "tools/list")
    return handleToolsList(request);
  if (method == "tools/call")
    return handleToolsCall(request);
  if (method == "ping")
    return buildSuccessResponse(request.id, nlohmann::json::object());
  return buildErrorResponse(request.id, JSONRPCError::methodNotFoundCode,
                            std::string(JSONRPCError::methodNotFoundPrefix) + method);
}

nlohmann::json ComputerUseMCPServer::handleInitialize(const JSONRPCRequest &request) const {
  // The client's requested version is not negotiated: this server speaks one version.
  return buildSuccessResponse(
      request.id, {{"protocolVersion", mcpProtocolVersion},
                   {"serverInfo", {{"name", serverName()}, {"version", mcpServerVersion}}},
                   {"capabilities", {{"tools", nlohmann::json::object()}}}});
}

nlohmann::json ComputerUseMCPServer::handleToolsList(const JSONRPCRequest &request) const {
  return buildSuccessResponse(request.id, {{"tools", toolDefinitions(mode_)}});
}

nlohmann::json ComputerUseMCPServer::handleToolsCall(const JSONRPCRequest &request) {
  static const nlohmann::json emptyObject = nlohmann::json::object();
  const nlohmann::json &params = request.params ? *request.params : emptyObject;
  const auto name = params.find("name");
  if (name == params.end() || !name->is_string())
    return buildErrorResponse(request.id, JSONRPCError::invalidParamsCode,
                              JSONRPCError::missingToolNameMessage);
  const auto arguments = params.find("arguments");
  const auto meta = params.find("_meta");
  if (!tools_) {
    nlohmann::json text = {{"type", "text"}, {"text", toolDispatchUnavailableMessage}};
    return buildSuccessResponse(
        request.id, {{"content", nlohmann::json::array({std::move(text)})}, {"isError", true}});
  }
  return buildSuccessResponse(
      request.id,
      tools_->dispatch(name->get<std::string>(),
                       arguments != params.end() && arguments->is_object() ? *arguments
                                                                           : emptyObject,
                       meta != params.end() ? *meta : nlohmann::json()));
}

void ComputerUseMCPServer::start(const MCPTransport &transport, std::stop_token stop) {
  if (transport.kind == MCPTransport::Kind::sse) {
    LogFields fields = {{"transport", "sse"}};
    if (std::string host = urlHost(transport.url); !host.empty())
      fields["endpointHost"] = host;
    Log::warning(LogCategory::transport, "transport_unavailable", fields);
    return;
  }
  runStdioTransport(*this, STDIN_FILENO, STDOUT_FILENO, std::move(stop));
}

std::string urlHost(std::string_view url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string_view::npos)
    return {};
  std::string_view rest = url.substr(scheme + 3);
  rest = rest.substr(0, rest.find_first_of("/?#"));
  if (const size_t at = rest.rfind('@'); at != std::string_view::npos)
    rest = rest.substr(at + 1);
  if (rest.starts_with('[')) // an IPv6 literal keeps its colons
    return std::string(rest.substr(1, rest.find(']') - 1));
  return std::string(rest.substr(0, rest.find(':')));
}

} // namespace tavix
