#pragma once
// What the D-Bus service needs of a desktop: one call per request family, taking the
// decoded request record and giving the response record, or a runtime error. The virtual
// desktop implements it for the tests and the demo; a backend that captures a real screen
// and drives real input implements the same calls, and the service stays as it is.
//
// The service calls these from several worker threads at once: an implementation guards
// its own state.

#include "contracts/ComputerUseRequests.h"
#include "contracts/EventStreamContracts.h"
#include "runtime/RuntimeError.h"

#include <cstdint>
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

  // A number that grows whenever anything a state request shows may have changed, and
  // only then: two state requests with the same fields, made while it stays the same,
  // answer the same. The service keeps encoded replies by it.
  virtual uint64_t stateVersion() const = 0;
};

} // namespace tavix::runtime
