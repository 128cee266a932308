#pragma once
// What the D-Bus service needs of a desktop: one call per request family, taking the
// decoded request record and giving the response record, or a runtime error. The virtual
// desktop implements it for the tests and the demo; a backend that captures a real screen
// and drives real input implements the same calls, and the service stays as it is.
//
// The service calls these from several worker threads at once: an implementation guards
// its own state.

#include "contracts/AppshotContracts.h"
#include "contracts/ComputerUseRequests.h"
#include "contracts/EventStreamContracts.h"
#include "runtime/RuntimeError.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tavix::runtime {

// Who sent a request: the unique bus name of the caller's connection, so that a desktop
// can count its clients.
struct RuntimeCaller {
  std::string clientID;
};

class RuntimeDesktop {
public:
  virtual ~RuntimeDesktop() = default;

  virtual RuntimeResult<ComputerUseIPCHealthResponse> health(const ComputerUseIPCHealthRequest &request,
                                                             const RuntimeCaller &caller) = 0;
  virtual RuntimeResult<ComputerUseIPCToolResultResponse> listApps(const ComputerUseIPCListAppsRequest &request) = 0;
  virtual RuntimeResult<ComputerUseIPCToolResultResponse> getAppState(const ComputerUseIPCAppGetStateRequest &request) = 0;
  // Both action requests: the perform and the execute form carry the same fields.
  virtual RuntimeResult<ComputerUseIPCToolResultResponse> performAction(const ComputerUseIPCAppActionFields &request) = 0;

  virtual RuntimeResult<ComputerUseIPCEmptyResponse> startApp(const ComputerUseIPCAppStartRequest &request) = 0;
  virtual RuntimeResult<ComputerUseIPCEmptyResponse> modifyApp(const ComputerUseIPCAppModifyRequest &request) = 0;
  virtual RuntimeResult<ComputerUseIPCEmptyResponse> reportUsage(const ComputerUseIPCAppUsageRequest &request) = 0;
  virtual RuntimeResult<ComputerUseIPCEmptyResponse> observeHostSession(
      const ComputerUseIPCHostSessionObserveRequest &request) = 0;

  // Record & Replay: each answers the recording's status after the request.
  virtual RuntimeResult<ComputerUseIPCEventStreamSessionStatus> startEventStream(
      const ComputerUseIPCEventStreamStartRequest &request) = 0;
  virtual RuntimeResult<ComputerUseIPCEventStreamSessionStatus> eventStreamStatus(
      const ComputerUseIPCEventStreamStatusRequest &request) = 0;
  virtual RuntimeResult<ComputerUseIPCEventStreamSessionStatus> stopEventStream(
      const ComputerUseIPCEventStreamStopRequest &request) = 0;

  // Appshot captures, each named by its caller's requestId (see CaptureUpdates.h for the
  // update types and error codes). A start that cannot begin its capture (no such app or
  // window, the name already capturing) says why in the response's `error`.
  virtual RuntimeResult<ComputerUseIPCAppStartFrontmostCaptureResponse> startCapture(
      const ComputerUseIPCAppStartFrontmostCaptureRequest &request) = 0;
  // The capture's next due update, taken (it is not due again), or nothing when none is
  // due. Never waits: the service waits, and asks again when the desktop tells it of a
  // change. A capture that is not running is CaptureUpdates::unknownCapture.
  virtual RuntimeResult<std::optional<ComputerUseIPCAppshotCaptureUpdate>> takeCaptureUpdate(
      const std::string &requestId) = 0;
  // Ends the capture; false when none of that name was running.
  virtual bool cancelCapture(const std::string &requestId) = 0;

  // A number that grows whenever anything a state request shows may have changed, and
  // only then: two state requests with the same fields, made while it stays the same,
  // answer the same. The service keeps encoded replies by it.
  virtual uint64_t stateVersion() const = 0;
  // `changed` is called each time the state version grows (on the thread that changed the
  // state, after the desktop has let go of its locks) until another listener, or an empty
  // one, replaces it: a capture may have an update due.
  virtual void setChangeListener(std::function<void()> changed) = 0;
};

} // namespace tavix::runtime
