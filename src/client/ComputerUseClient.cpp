#include "client/ComputerUseClient.h"

#include "support/JSON.h"

#include <cassert>

namespace tavix {

ComputerUseClient::ComputerUseClient(std::unique_ptr<ComputerUseRequestTransport> transport)
    : transport_(std::move(transport)) {
  assert(transport_ != nullptr);
}

ClientResult<ComputerUseIPCHealthResponse> ComputerUseClient::sendHeartbeat() const {
  return send(ComputerUseIPCHealthRequest{.refreshClientActivity = true}, heartbeatTimeoutSeconds);
}

ClientResult<nlohmann::json> ComputerUseClient::sendJSON(std::string_view requestType,
                                                         const nlohmann::json &request,
                                                         std::optional<double> timeoutSeconds) const {
  const auto bytes = serializeJSON(request, NonFiniteNumbers::refuse);
  if (!bytes)
    return tl::unexpected(ClientFailure(ComputerUseClientError::encodingFailed(std::string(requestType))));
  auto reply = transport_->send(requestType, std::move(*bytes), timeoutSeconds);
  if (!reply)
    return tl::unexpected(std::move(reply.error()));
  auto value = parseJSON(*reply);
  if (!value)
    return tl::unexpected(ClientFailure(
        ComputerUseClientError::decodingFailed(std::string(requestType), "The given data was not valid JSON.")));
  return std::move(*value);
}

} // namespace tavix
