#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace tavix {

// What the server needs of the tool gateway: run one named tool with its arguments and
// return the tool result object ("content", and "isError" for a failed call). Runs with
// the request's context installed, so it can see the call's cancellation.
class MCPToolDispatcher {
public:
  virtual ~MCPToolDispatcher() = default;
  virtual nlohmann::json dispatch(const std::string &toolName, const nlohmann::json &arguments,
                                  const nlohmann::json &meta) = 0;
};

} // namespace tavix
