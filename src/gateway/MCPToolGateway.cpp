#include "gateway/MCPToolGateway.h"

#include "gateway/ToolCatalogue.h"

namespace tavix {
namespace {

constexpr std::string_view toolDispatchUnavailableMessage =
    "Internal error: tool dispatch is not available in this build of the bridge.";

} // namespace

const nlohmann::json &MCPToolGateway::list() const { return toolDefinitions(mode_); }

nlohmann::json MCPToolGateway::call(const std::string &, const nlohmann::json &,
                                    const nlohmann::json &) {
  nlohmann::json text = {{"type", "text"}, {"text", toolDispatchUnavailableMessage}};
  return {{"content", nlohmann::json::array({std::move(text)})}, {"isError", true}};
}

} // namespace tavix
