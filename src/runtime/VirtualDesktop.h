#pragma once
// The desktop the simulator serves: three small apps whose windows fill a screen of a
// chosen size, their state as text and as a PNG screenshot, actions that change them,
// the runtime's health, a Record & Replay session and appshot captures of a window. One
// mutex guards it all, since the service calls it from several threads at once.
//
// The frontmost app is Notes at first, then the app an action or a start request last
// named; list_apps marks it, beside each window's id.

#include "runtime/EventStreamRecorder.h"
#include "runtime/PngEncoder.h"
#include "runtime/RuntimeDesktop.h"
#include "runtime/VirtualApp.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavix::runtime {

struct VirtualDesktopOptions {
  // What health reports.
  std::string generationID;
  std::string bundleIdentifier;
  std::string bundlePath;
  bool healthy = true;
  int screenWidth = 1024;
  int screenHeight = 768;
  int pngLevel = PngEncoder::defaultLevel;
  std::function<std::chrono::system_clock::time_point()> now = [] { return std::chrono::system_clock::now(); };
};

class VirtualDesktop final : public RuntimeDesktop {
public:
  // A client that refreshed its activity within this long counts as active.
  static constexpr double heartbeatTimeoutSeconds = 90;

  explicit VirtualDesktop(VirtualDesktopOptions options);

  RuntimeResult<ComputerUseIPCHealthResponse> health(const ComputerUseIPCHealthRequest &request,
                                                     const RuntimeCaller &caller) override;
  RuntimeResult<ComputerUseIPCToolResultResponse> listApps(const ComputerUseIPCListAppsRequest &request) override;
  RuntimeResult<ComputerUseIPCToolResultResponse> getAppState(const ComputerUseIPCAppGetStateRequest &request) override;
  RuntimeResult<ComputerUseIPCToolResultResponse> performAction(const ComputerUseIPCAppActionFields &request) override;
  RuntimeResult<ComputerUseIPCEmptyResponse> startApp(const ComputerUseIPCAppStartRequest &request) override;
  RuntimeResult<ComputerUseIPCEmptyResponse> modifyApp(const ComputerUseIPCAppModifyRequest &request) override;
  RuntimeResult<ComputerUseIPCEmptyResponse> reportUsage(const ComputerUseIPCAppUsageRequest &request) override;
  RuntimeResult<ComputerUseIPCEmptyResponse> observeHostSession(
      const ComputerUseIPCHostSessionObserveRequest &request) override;
  RuntimeResult<ComputerUseIPCEventStreamSessionStatus> startEventStream(
      const ComputerUseIPCEventStreamStartRequest &request) override;
  RuntimeResult<ComputerUseIPCEventStreamSessionStatus> eventStreamStatus(
      const ComputerUseIPCEventStreamStatusRequest &request) override;
  RuntimeResult<ComputerUseIPCEventStreamSessionStatus> stopEventStream(
      const ComputerUseIPCEventStreamStopRequest &request) override;
  RuntimeResult<ComputerUseIPCAppStartFrontmostCaptureResponse> startCapture(
      const ComputerUseIPCAppStartFrontmostCaptureRequest &request) override;
  RuntimeResult<std::optional<ComputerUseIPCAppshotCaptureUpdate>> takeCaptureUpdate(
      const std::string &requestId) override;
  bool cancelCapture(const std::string &requestId) override;
  uint64_t stateVersion() const override;
  void setChangeListener(std::function<void()> changed) override;

  // The host turn the last observe request named.
  std::optional<ComputerUseHostTurnContext> lastObservedContext() const;
  // How many screenshots were drawn and encoded, rather than answered from memory.
  uint64_t screenshotsEncoded() const;

private:
  struct Capture {
    std::string bundleID;
    bool snapshotTaken = false;
    uint64_t version = 0; // the state version its last update showed
  };

  VirtualApp *findApp(const std::string &query);
  VirtualApp *findBundle(const std::string &bundleID);
  ComputerUseIPCToolResultResponse appNotFound(const std::string &query) const;
  const std::string &screenshot(const VirtualApp &app);
  ComputerUseIPCAppshotTarget captureTarget(const VirtualApp &app) const;

  const VirtualDesktopOptions options_;
  const PngEncoder encoder_;
  mutable std::mutex mutex_;
  std::vector<VirtualApp> apps_;
  // Each app's icon as a PNG data URL, by bundle identifier.
  std::map<std::string, std::string> icons_;
  size_t frontmost_ = 0;
  // Bumped by every change, so a cached screenshot knows when it is stale.
  uint64_t version_ = 0;
  struct CachedScreenshot {
    uint64_t version = 0;
    std::string base64;
  };
  std::map<std::string, CachedScreenshot> screenshots_; // by bundle identifier
  uint64_t screenshotsEncoded_ = 0;
  std::map<std::string, std::chrono::system_clock::time_point> clientActivity_;
  std::optional<ComputerUseHostTurnContext> lastObservedContext_;
  EventStreamRecorder recorder_;
  std::map<std::string, Capture> captures_; // by requestId
  std::function<void()> changeListener_;
};

} // namespace tavix::runtime
