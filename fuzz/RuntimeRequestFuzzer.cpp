// Arbitrary bytes through the runtime simulator's two readers of outside input: the fault
// script, and one request (its type chosen by the first byte, its body the rest) routed to
// a virtual desktop. Whatever the input, the answer is a reply or a runtime error, and a
// reply is JSON that reads back; a capture request's reply is its response record, and a
// next-update answers at once (routing never waits) with a picture or "timeout".

#include "contracts/AppshotContracts.h"
#include "contracts/ComputerUseRequests.h"
#include "runtime/CaptureUpdates.h"
#include "runtime/FaultScript.h"
#include "runtime/RequestRouter.h"
#include "runtime/VirtualDesktop.h"
#include "support/JSON.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

using namespace tavix;

constexpr std::array<std::string_view, 17> requestTypes = {
    "ComputerUseIPCHealthRequest",           "ComputerUseIPCListAppsRequest",
    "ComputerUseIPCAppGetStateRequest",      "ComputerUseIPCAppPerformActionRequest",
    "ComputerUseIPCAppExecuteActionRequest", "ComputerUseIPCAppStartRequest",
    "ComputerUseIPCAppModifyRequest",        "ComputerUseIPCAppUsageRequest",
    "ComputerUseIPCHostSessionObserveRequest", "ComputerUseIPCEventStreamStartRequest",
    "ComputerUseIPCEventStreamStatusRequest", "ComputerUseIPCEventStreamStopRequest",
    "ComputerUseIPCCancelRequest",           "ComputerUseIPCAppStartFrontmostCaptureRequest",
    "ComputerUseIPCAppNextCaptureUpdateRequest", "ComputerUseIPCAppCancelCaptureRequest",
    "NoSuchRequest"};

runtime::VirtualDesktop &desktop() {
  // Small screenshots keep each run quick; state carries over between runs, as it does in
  // a running simulator.
  static auto *instance = new runtime::VirtualDesktop({.generationID = "generation",
                                                       .bundleIdentifier = "com.tavix.computeruse",
                                                       .bundlePath = "/fuzz",
                                                       .screenWidth = 400,
                                                       .screenHeight = 320,
                                                       .pngLevel = 1});
  return *instance;
}

template <typename Request> bool readsBackAs(const nlohmann::json &reply) {
  return Request::Response::fromJSON(reply).has_value();
}

// What a capture request's reply must be.
bool isCaptureReply(std::string_view type, const nlohmann::json &reply) {
  if (type == ComputerUseIPCAppStartFrontmostCaptureRequest::requestType)
    return readsBackAs<ComputerUseIPCAppStartFrontmostCaptureRequest>(reply);
  if (type == ComputerUseIPCAppCancelCaptureRequest::requestType)
    return reply == nlohmann::json::object();
  if (type != ComputerUseIPCAppNextCaptureUpdateRequest::requestType)
    return true;
  const auto envelope = ComputerUseIPCAppshotUpdateEnvelope::fromJSON(reply);
  if (!envelope)
    return false;
  const std::string &update = envelope->update.type;
  return update == runtime::CaptureUpdates::snapshot || update == runtime::CaptureUpdates::frame ||
         update == runtime::CaptureUpdates::timedOut;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0)
    return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
  (void)runtime::FaultScript::parse(text);
  const runtime::RequestRouter router(desktop());
  const std::string_view type = requestTypes[data[0] % requestTypes.size()];
  const auto reply = router.route(type, text, {"fuzz"});
  if (!reply)
    return 0;
  const auto json = parseJSON(*reply);
  if (!json || !isCaptureReply(type, *json))
    abort();
  return 0;
}
