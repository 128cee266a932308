#pragma once
// How a tool call can fail instead of producing a result: the tool's own argument errors,
// or the runtime client's failures. The MCP server turns both into error results.

#include "client/ClientFailure.h"
#include "contracts/ToolError.h"
#include "contracts/ToolResult.h"

#include <tl/expected.hpp>

#include <string>
#include <variant>

namespace tavix {

using ToolCallError = std::variant<ToolError, ClientFailure>;
using ToolCallResult = tl::expected<ToolResult, ToolCallError>;

inline std::string describe(const ToolCallError &error) {
  if (const auto *toolError = std::get_if<ToolError>(&error))
    return toolError->description();
  return describe(std::get<ClientFailure>(error));
}

inline ComputerUseFailure failureFrom(const ToolCallError &error) {
  if (const auto *toolError = std::get_if<ToolError>(&error))
    return toolError->failure();
  return failureFrom(std::get<ClientFailure>(error));
}

inline LogError logError(const ToolCallError &error) {
  if (const auto *toolError = std::get_if<ToolError>(&error))
    return {"ToolError", "tavix.tools", static_cast<int64_t>(toolError->kind())};
  return logError(std::get<ClientFailure>(error));
}

} // namespace tavix
