#include "bridge/AppshotStdioMethods.h"

#include "contracts/AppshotContracts.h"
#include "support/RequestContext.h"

#include <array>
#include <utility>

namespace tavix {
namespace {

// Sends without an explicit time-out: the transport's own per-request default applies.
// A task cancelled before it got here sends nothing.
template <ComputerUseRequest Request>
tl::expected<nlohmann::json, std::string> call(const ComputerUseClient &client, const nlohmann::json &params) {
  auto request = Request::fromJSON(params);
  if (!request)
    return tl::unexpected(std::move(request.error().description));
  if (RequestContext::current()->isCancelled())
    return tl::unexpected(describe(CancellationError{}));
  auto response = client.send(*request);
  if (!response)
    return tl::unexpected(describe(response.error()));
  return response->toJSON();
}

constexpr AppshotStdioMethod startCapture{ComputerUseIPCAppStartFrontmostCaptureRequest::requestType,
                                          call<ComputerUseIPCAppStartFrontmostCaptureRequest>};
constexpr AppshotStdioMethod nextUpdate{ComputerUseIPCAppNextCaptureUpdateRequest::requestType,
                                        call<ComputerUseIPCAppNextCaptureUpdateRequest>};
constexpr AppshotStdioMethod cancelCapture{ComputerUseIPCAppCancelCaptureRequest::requestType,
                                           call<ComputerUseIPCAppCancelCaptureRequest>};

constexpr std::array<std::pair<std::string_view, const AppshotStdioMethod *>, 7> methodNames = {{
    {"startFrontmostAppshotCapture", &startCapture},
    {"computer-use-start-frontmost-capture", &startCapture},
    {"computer-use-start-capture", &startCapture},
    {"nextAppshotCaptureUpdate", &nextUpdate},
    {"computer-use-next-capture-update", &nextUpdate},
    {"cancelAppshotCapture", &cancelCapture},
    {"computer-use-cancel-capture", &cancelCapture},
}};

} // namespace

const AppshotStdioMethod *findAppshotStdioMethod(std::string_view name) {
  for (const auto &[methodName, method] : methodNames)
    if (methodName == name)
      return method;
  return nullptr;
}

} // namespace tavix
