// Arbitrary bytes through the runtime simulator's two readers of outside input: the fault
// script, and one request (its type chosen by the first byte, its body the rest) routed to
// a virtual desktop. Whatever the input, the answer is a reply or a runtime error, and a
// reply is JSON that reads back.

#include "contracts/ComputerUseRequests.h"
#include "runtime/FaultScript.h"
#include "runtime/RequestRouter.h"
#include "runtime/VirtualDesktop.h"
#include "support/JSON.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

constexpr std::array<std::string_view, 14> requestTypes = {
    "ComputerUseIPCHealthRequest",           "ComputerUseIPCListAppsRequest",
    "ComputerUseIPCAppGetStateRequest",      "ComputerUseIPCAppPerformActionRequest",
    "ComputerUseIPCAppExecuteActionRequest", "ComputerUseIPCAppStartRequest",
    "ComputerUseIPCAppModifyRequest",        "ComputerUseIPCAppUsageRequest",
    "ComputerUseIPCHostSessionObserveRequest", "ComputerUseIPCEventStreamStartRequest",
    "ComputerUseIPCEventStreamStatusRequest", "ComputerUseIPCEventStreamStopRequest",
    "ComputerUseIPCCancelRequest",           "NoSuchRequest"};

tavix::runtime::VirtualDesktop &desktop() {
  // Small screenshots keep each run quick; state carries over between runs, as it does in
  // a running simulator.
  static auto *instance = new tavix::runtime::VirtualDesktop({.generationID = "generation",
                                                              .bundleIdentifier = "com.tavix.computeruse",
                                                              .bundlePath = "/fuzz",
                                                              .screenWidth = 400,
                                                              .screenHeight = 320,
                                                              .pngLevel = 1});
  return *instance;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0)
    return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
  (void)tavix::runtime::FaultScript::parse(text);
  const tavix::runtime::RequestRouter router(desktop());
  const auto reply = router.route(requestTypes[data[0] % requestTypes.size()], text, {"fuzz"});
  if (reply && !tavix::parseJSON(*reply))
    abort();
  return 0;
}
