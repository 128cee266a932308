#pragma once

#include "mcp/JSONRPCMessage.h"

#include <nlohmann/json.hpp>

#include <optional>

namespace tavix {

// What a transport needs of the server: the answer to one request, or nothing for a
// method answered with silence. Runs with the request's context installed.
class MCPRequestHandler {
public:
  virtual ~MCPRequestHandler() = default;
  virtual std::optional<nlohmann::json> handleRequest(const JSONRPCRequest &request) = 0;
};

} // namespace tavix
