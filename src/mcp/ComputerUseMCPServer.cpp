#include "mcp/ComputerUseMCPServer.h"

#include "logging/Logger.h"
#include "mcp/StdioTransport.h"

#include <cassert>
#include <unistd.h>

namespace tavix {

ComputerUseMCPServer::ComputerUseMCPServer(Mode mode, std::shared_ptr<MCPTools> tools,
                                           std::shared_ptr<const ComputerUseClient> client, Options options)
    : mode_(mode), tools_(std::move(tools)), client_(std::move(client)),
      heartbeat_(client_ ? std::make_unique<RuntimeHeartbeat>(client_, std::move(options.heartbeat)) : nullptr) {
  assert(tools_ != nullptr);
}

void ComputerUseMCPServer::stopRuntimeHeartbeat() {
  if (heartbeat_)
    heartbeat_->stop();
}

std::string_view ComputerUseMCPServer::serverName() const {
  return mode_ == Mode::computerUse ? "computer-use" : "record-and-replay";
}

JSONRPCDispatcher::MethodTable ComputerUseMCPServer::methods() {
  return {
      {"initialize",
       [this](const JSONRPCRequest &, JSONRPCReply reply) { reply(handleInitialize()); }},
      // Answered with silence: the reply of a notification sends nothing.
      {"notifications/initialized", [](const JSONRPCRequest &, JSONRPCReply) {}},
      {"tools/list",
       [this](const JSONRPCRequest &, JSONRPCReply reply) {
         reply({{"tools", tools_->list()}});
       }},
      {"tools/call",
       [this](const JSONRPCRequest &request, JSONRPCReply reply) {
         handleToolsCall(request, std::move(reply));
       }},
  };
}

nlohmann::json ComputerUseMCPServer::handleInitialize() const {
  // The client's requested version is not negotiated: this server speaks one version.
  return {{"protocolVersion", mcpProtocolVersion},
          {"serverInfo", {{"name", serverName()}, {"version", mcpServerVersion}}},
          {"capabilities", {{"tools", nlohmann::json::object()}}}};
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

void runStdioTransport(ComputerUseMCPServer &server, int inputFd, int outputFd,
                       std::stop_token stop, const StdioWriteOptions &writeOptions) {
  Log::info(LogCategory::transport, "transport_started", {{"transport", "stdio"}});
  StdioTransport transport(inputFd, outputFd, writeOptions);
  JSONRPCDispatcher dispatcher(transport, server.methods());
  std::stop_callback onCancel(stop, [&transport] { transport.close(); });
  dispatcher.serve();
  server.stopRuntimeHeartbeat();
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
