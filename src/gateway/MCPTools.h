#pragma once
// What the MCP server needs of the tools it offers: their list and a way to call one.
// The gateway implements it and the entry point hands it to the server, so that the
// server never depends on how a tool is carried out.

#include "contracts/ComputerUseRequests.h"
#include "gateway/ToolCallError.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace tavix {

class MCPTools {
public:
  virtual ~MCPTools() = default;

  // The tool definitions that "tools/list" returns, in list order.
  virtual const nlohmann::json &list() const = 0;

  // Runs one named tool with its "arguments" object and the host's turn, and returns its
  // result, which may itself be an error result, or the error that ended the call. Runs
  // on the calling thread with the request's context installed, and so sees the call's
  // cancellation and correlation id.
  virtual ToolCallResult dispatch(const std::string &toolName, const nlohmann::json &arguments,
                                  const std::optional<ComputerUseHostTurnContext> &turnContext) = 0;
};

} // namespace tavix
