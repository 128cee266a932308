#include "runtime/RequestRouter.h"

#include "runtime/CaptureUpdates.h"

#include <array>
#include <optional>

namespace tavix::runtime {
namespace {

using Handler = RuntimeResult<nlohmann::json> (*)(RuntimeDesktop &, const nlohmann::json &,
                                                  const RuntimeCaller &);

// Decodes `Request` and hands it to the desktop through `call`.
template <typename Request, typename Call>
RuntimeResult<nlohmann::json> decodeAndCall(const nlohmann::json &json, Call call) {
  auto request = Request::fromJSON(json);
  if (!request)
    return RequestRouter::invalid(Request::requestType, request.error().description);
  auto response = call(*request);
  if (!response)
    return tl::unexpected(response.error());
  return response->toJSON();
}

struct Route {
  std::string_view requestType;
  Handler handler;
};

template <typename Request, auto Method> Route route() {
  return {Request::requestType, [](RuntimeDesktop &desktop, const nlohmann::json &json, const RuntimeCaller &) {
            return decodeAndCall<Request>(json, [&](const Request &request) { return (desktop.*Method)(request); });
          }};
}

// A next-update, looked at once: its deadline is now.
RuntimeResult<ComputerUseIPCAppshotUpdateEnvelope> nextCaptureUpdateNow(RuntimeDesktop &desktop,
                                                                         const ComputerUseIPCAppNextCaptureUpdateRequest &request) {
  const auto now = CaptureUpdates::Clock::now();
  auto look = CaptureUpdates::look(desktop, request.requestId, now, now, false);
  if (look.error)
    return tl::unexpected(std::move(*look.error));
  return std::move(*look.reply);
}

const std::array<Route, 16> &routes() {
  static const std::array<Route, 16> table = {
      Route{ComputerUseIPCHealthRequest::requestType,
            [](RuntimeDesktop &desktop, const nlohmann::json &json, const RuntimeCaller &caller) {
              return decodeAndCall<ComputerUseIPCHealthRequest>(
                  json, [&](const ComputerUseIPCHealthRequest &request) { return desktop.health(request, caller); });
            }},
      route<ComputerUseIPCListAppsRequest, &RuntimeDesktop::listApps>(),
      route<ComputerUseIPCAppGetStateRequest, &RuntimeDesktop::getAppState>(),
      route<ComputerUseIPCAppPerformActionRequest, &RuntimeDesktop::performAction>(),
      route<ComputerUseIPCAppExecuteActionRequest, &RuntimeDesktop::performAction>(),
      route<ComputerUseIPCAppStartRequest, &RuntimeDesktop::startApp>(),
      route<ComputerUseIPCAppModifyRequest, &RuntimeDesktop::modifyApp>(),
      route<ComputerUseIPCAppUsageRequest, &RuntimeDesktop::reportUsage>(),
      route<ComputerUseIPCHostSessionObserveRequest, &RuntimeDesktop::observeHostSession>(),
      route<ComputerUseIPCEventStreamStartRequest, &RuntimeDesktop::startEventStream>(),
      route<ComputerUseIPCEventStreamStatusRequest, &RuntimeDesktop::eventStreamStatus>(),
      route<ComputerUseIPCEventStreamStopRequest, &RuntimeDesktop::stopEventStream>(),
      route<ComputerUseIPCAppStartFrontmostCaptureRequest, &RuntimeDesktop::startCapture>(),
      Route{ComputerUseIPCAppNextCaptureUpdateRequest::requestType,
            [](RuntimeDesktop &desktop, const nlohmann::json &json, const RuntimeCaller &) {
              return decodeAndCall<ComputerUseIPCAppNextCaptureUpdateRequest>(
                  json, [&](const ComputerUseIPCAppNextCaptureUpdateRequest &request) {
                    return nextCaptureUpdateNow(desktop, request);
                  });
            }},
      Route{ComputerUseIPCAppCancelCaptureRequest::requestType,
            [](RuntimeDesktop &desktop, const nlohmann::json &json, const RuntimeCaller &) {
              return decodeAndCall<ComputerUseIPCAppCancelCaptureRequest>(
                  json, [&](const ComputerUseIPCAppCancelCaptureRequest &request) -> RuntimeResult<ComputerUseIPCEmptyResponse> {
                    desktop.cancelCapture(request.requestId); // a capture not running is no failure
                    return ComputerUseIPCEmptyResponse{};
                  });
            }},
      // The service carries out a cancel before it gets here; the answer is only {}.
      Route{ComputerUseIPCCancelRequest::requestType,
            [](RuntimeDesktop &, const nlohmann::json &json, const RuntimeCaller &) -> RuntimeResult<nlohmann::json> {
              const auto request = ComputerUseIPCCancelRequest::fromJSON(json);
              if (!request)
                return RequestRouter::invalid(ComputerUseIPCCancelRequest::requestType, request.error().description);
              return nlohmann::json::object();
            }},
  };
  return table;
}

} // namespace

RuntimeResult<std::string> RequestRouter::route(std::string_view requestType, std::string_view body,
                                                const RuntimeCaller &caller) const {
  const Route *found = nullptr;
  for (const auto &candidate : routes())
    if (candidate.requestType == requestType)
      found = &candidate;
  if (found == nullptr)
    return runtimeError(errn::unknownRequestType, "Unknown request type: " + std::string(requestType));
  const auto json = parseJSON(body);
  if (!json)
    return invalid(requestType, "the body is not JSON");
  auto response = found->handler(desktop_, *json, caller);
  if (!response)
    return tl::unexpected(response.error());
  auto bytes = serializeJSON(*response);
  if (!bytes)
    return runtimeError(errn::unknownFailure, "The response to " + std::string(requestType) +
                                                  " could not be written as JSON");
  return std::move(*bytes);
}

} // namespace tavix::runtime
