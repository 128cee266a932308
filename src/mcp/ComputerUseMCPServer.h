#pragma once
// The MCP server: its identity, its method table and the transports it can serve.

#include "gateway/MCPServerMode.h"
#include "mcp/MCPRequestHandler.h"
#include "mcp/MCPToolDispatcher.h"

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

class ComputerUseMCPServer final : public MCPRequestHandler {
public:
  using Mode = MCPServerMode;

  // Without a dispatcher, tool calls are answered with an error result that says so.
  explicit ComputerUseMCPServer(Mode mode, std::shared_ptr<MCPToolDispatcher> tools = nullptr);

  std::string_view serverName() const;
  std::optional<nlohmann::json> handleRequest(const JSONRPCRequest &request) override;

  // Serves the transport until its input ends or `stop` is requested. Only stdio can be
  // served; asking for server-sent events logs that it is unavailable and returns.
  void start(const MCPTransport &transport, std::stop_token stop);

private:
  nlohmann::json handleInitialize(const JSONRPCRequest &request) const;
  nlohmann::json handleToolsList(const JSONRPCRequest &request) const;
  nlohmann::json handleToolsCall(const JSONRPCRequest &request);

  const Mode mode_;
  const std::shared_ptr<MCPToolDispatcher> tools_;
};

// The host part of a URL ("example.com" of "https://user@example.com:8443/x"); empty
// when it has none.
std::string urlHost(std::string_view url);

} // namespace tavix
