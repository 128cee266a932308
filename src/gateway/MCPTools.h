#pragma once
// What the MCP server needs of the tools it offers: their list and a way to call one.
// The gateway implements it and the entry point hands it to the server, so that the
// server never depends on how a tool is carried out.

#include <nlohmann/json.hpp>

#include <string>

namespace tavix {

class MCPTools {
public:
  virtual ~MCPTools() = default;

  // The tool definitions that "tools/list" returns, in list order.
  virtual const nlohmann::json &list() const = 0;

  // Runs one named tool with its "arguments" object and the request's "_meta" value
  // (null when absent), and returns the tool result object ("content", and "isError"
  // for a failed call). Runs with the request's context installed, so it can see the
  // call's cancellation.
  virtual nlohmann::json call(const std::string &toolName, const nlohmann::json &arguments,
                              const nlohmann::json &meta) = 0;
};

} // namespace tavix
