#pragma once
// The tools of one server mode: the fixed catalogue and the calls into it.

#include "gateway/MCPServerMode.h"
#include "gateway/MCPTools.h"

namespace tavix {

class MCPToolGateway final : public MCPTools {
public:
  explicit MCPToolGateway(MCPServerMode mode) : mode_(mode) {}

  const nlohmann::json &list() const override;

  // This build has no runtime connection yet, so every call is answered with an error
  // result that says tool dispatch is not available.
  nlohmann::json call(const std::string &toolName, const nlohmann::json &arguments,
                      const nlohmann::json &meta) override;

private:
  const MCPServerMode mode_;
};

} // namespace tavix
