#include "mcp/JSONRPCMessage.h"

namespace tavix {

std::optional<JSONRPCRequest> JSONRPCRequest::from(nlohmann::json object) {
  if (!object.is_object())
    return std::nullopt;
  const auto version = object.find("jsonrpc");
  if (version == object.end() || !version->is_string() ||
      version->get_ref<const std::string &>() != "2.0")
    return std::nullopt;
  const auto method = object.find("method");
  if (method == object.end() || !method->is_string())
    return std::nullopt;
  JSONRPCRequest request{"2.0", std::nullopt, method->get<std::string>(), std::nullopt};
  if (auto params = object.find("params"); params != object.end() && params->is_object())
    request.params = std::move(*params);
  if (const auto id = object.find("id"); id != object.end())
    request.id = JSONRPCId::from(*id);
  return request;
}

namespace {

nlohmann::json envelope(const std::optional<JSONRPCId> &id) {
  nlohmann::json response = {{"jsonrpc", "2.0"}};
  if (id)
    response["id"] = id->toJSON();
  return response;
}

} // namespace

nlohmann::json buildSuccessResponse(const std::optional<JSONRPCId> &id, nlohmann::json result) {
  nlohmann::json response = envelope(id);
  response["result"] = std::move(result);
  return response;
}

nlohmann::json buildErrorResponse(const std::optional<JSONRPCId> &id, int code,
                                  std::string_view message) {
  nlohmann::json response = envelope(id);
  response["error"] = {{"code", code}, {"message", message}};
  return response;
}

} // namespace tavix
