#pragma once
// The one object through which the bridge talks to the runtime app: a typed request goes
// out as JSON bytes under its type name, and the reply comes back as the request's typed
// response. How the bytes travel is the transport's business.

#include "client/ClientFailure.h"
#include "client/ComputerUseRequestTransport.h"
#include "contracts/ComputerUseRequests.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

class ComputerUseClient {
public:
  // How long a heartbeat may take: a stalled runtime app costs it no more.
  static constexpr double heartbeatTimeoutSeconds = 2.0;

  // `transport` is never null.
  explicit ComputerUseClient(std::unique_ptr<ComputerUseRequestTransport> transport);
  ComputerUseClient(const ComputerUseClient &) = delete;
  ComputerUseClient &operator=(const ComputerUseClient &) = delete;

  std::string_view transportName() const { return transport_->transportName(); }
  bool hasEstablishedConnection() const { return transport_->hasEstablishedConnection(); }

  // Sends `request` and reads its response. Transport errors pass through unchanged; a
  // reply that is not the response adds `decodingFailed`.
  template <ComputerUseRequest Request>
  ClientResult<typename Request::Response> send(const Request &request,
                                                std::optional<double> timeoutSeconds = std::nullopt) const {
    auto reply = sendJSON(Request::requestType, request.toJSON(), timeoutSeconds);
    if (!reply)
      return tl::unexpected(std::move(reply.error()));
    auto response = Request::Response::fromJSON(std::move(*reply));
    if (!response)
      return tl::unexpected(ClientFailure(
          ComputerUseClientError::decodingFailed(std::string(Request::requestType), response.error().description)));
    return std::move(*response);
  }

  // A health request that also tells the runtime app this client is still active, sent
  // once to the runtime app already selected, within `heartbeatTimeoutSeconds`.
  ClientResult<ComputerUseIPCHealthResponse> sendHeartbeat() const;

private:
  ClientResult<nlohmann::json> sendJSON(std::string_view requestType, const nlohmann::json &request,
                                        std::optional<double> timeoutSeconds) const;

  const std::unique_ptr<ComputerUseRequestTransport> transport_;
};

} // namespace tavix
