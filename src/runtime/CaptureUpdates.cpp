#include "runtime/CaptureUpdates.h"

#include <algorithm>

namespace tavix::runtime {

std::chrono::milliseconds CaptureUpdates::waitFor(std::optional<int64_t> timeoutMs) {
  if (!timeoutMs)
    return defaultWait;
  return std::chrono::milliseconds(std::clamp<int64_t>(*timeoutMs, 0, longestWait.count()));
}

RuntimeError CaptureUpdates::unknownCapture(std::string_view requestId) {
  return {errn::noSuchObject, "No capture is running with requestId \"" + std::string(requestId) + "\""};
}

ComputerUseIPCAppshotUpdateEnvelope CaptureUpdates::envelope(const std::string &requestId, const char *type) {
  return {requestId, ComputerUseIPCAppshotCaptureUpdate{.type = type,
                                                        .target = std::nullopt,
                                                        .text = std::nullopt,
                                                        .screenshotDataURL = std::nullopt,
                                                        .transitionSnapshotDataURL = std::nullopt,
                                                        .error = std::nullopt}};
}

CaptureLook CaptureUpdates::look(RuntimeDesktop &desktop, const std::string &requestId, Clock::time_point deadline,
                                 Clock::time_point now, bool again) {
  auto update = desktop.takeCaptureUpdate(requestId);
  if (!update && again && update.error().errn == errn::noSuchObject)
    return {envelope(requestId, cancelled), std::nullopt};
  if (!update)
    return {std::nullopt, update.error()};
  if (*update)
    return {ComputerUseIPCAppshotUpdateEnvelope{requestId, std::move(**update)}, std::nullopt};
  if (now >= deadline)
    return {envelope(requestId, timedOut), std::nullopt};
  return {};
}

} // namespace tavix::runtime
