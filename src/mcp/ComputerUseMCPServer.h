#pragma once
// The MCP server: its identity, its methods and the transports it can serve.

#include "client/ComputerUseClient.h"
#include "gateway/MCPServerMode.h"
#include "gateway/MCPTools.h"
#include "mcp/JSONRPCDispatcher.h"
#include "mcp/RuntimeHeartbeat.h"
#include "mcp/StdioMessageWriter.h"

#include <chrono>
#include <memory>
#include <stop_token>
#include <string>

namespace tavix {

inline constexpr std::string_view mcpProtocolVersion = "2024-11-05";
inline constexpr std::string_view mcpServerVersion = "1.0.0";

struct MCPTransport {
  enum class Kind { stdio, sse };
  Kind kind = Kind::stdio;
  std::string url; // for sse

  static MCPTransport stdio() { return {Kind::stdio, {}}; }
  static MCPTransport sse(std::string url) { return {Kind::sse, std::move(url)}; }
};

class ComputerUseMCPServer {
public:
  using Mode = MCPServerMode;

  struct Options {
    RuntimeHeartbeat::Options heartbeat;
  };

  // `tools` is never null. `client` reaches the runtime app the tools use; without one
  // there is no heartbeat.
  ComputerUseMCPServer(Mode mode, std::shared_ptr<MCPTools> tools,
                       std::shared_ptr<const ComputerUseClient> client = nullptr, Options options = {});

  std::string_view serverName() const;

  // The server's methods, for the dispatcher of a connection. They refer to this server,
  // which must outlive the connection.
  JSONRPCDispatcher::MethodTable methods();

  // Serves the transport until its input ends or `stop` is requested. Only stdio can be
  // served; asking for server-sent events logs that it is unavailable and returns.
  void start(const MCPTransport &transport, std::stop_token stop);

  // Called when the transport ends: no heartbeat outlives the connection.
  void stopRuntimeHeartbeat();
  bool isRuntimeHeartbeatRunning() const { return heartbeat_ && heartbeat_->isRunning(); }

private:
  nlohmann::json handleInitialize() const;
  // Runs with the request queue's correlation id, or a new one, bound for the whole call.
  void handleToolsCall(const JSONRPCRequest &request, JSONRPCReply reply);
  void handleCorrelatedToolsCall(const JSONRPCRequest &request, JSONRPCReply reply);
  // The tool's result, or its failure as an error result, with the end of the call logged.
  ToolResult runTool(const std::string &tool, const nlohmann::json &arguments,
                     const std::optional<ComputerUseHostTurnContext> &turnContext,
                     std::chrono::steady_clock::time_point start);

  const Mode mode_;
  const std::shared_ptr<MCPTools> tools_;
  const std::shared_ptr<const ComputerUseClient> client_;
  const std::unique_ptr<RuntimeHeartbeat> heartbeat_; // null without a client
};

// Serves one connection over a pair of descriptors: a stdio transport with a dispatcher
// of the server's methods over it. Returns when the input ends or the connection stops.
void runStdioTransport(ComputerUseMCPServer &server, int inputFd, int outputFd,
                       std::stop_token stop, const StdioWriteOptions &writeOptions = {});

// The host part of a URL ("example.com" of "https://user@example.com:8443/x"); empty
// when it has none.
std::string urlHost(std::string_view url);

} // namespace tavix
