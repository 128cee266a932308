#pragma once
// The transport to the runtime app: each request is one event to the runtime app's
// process, sent on a bounded executor under a time-out, retried while the runtime app
// is still starting, cancelled in the runtime app when its caller gives up. It finds or
// launches the runtime app and checks the permission to send to it.

#include "client/AutomationAuthorization.h"
#include "client/ComputerUseRequestTransport.h"
#include "client/IPCBlockingSendExecutor.h"
#include "client/RuntimeDiscovery.h"
#include "client/RuntimeEventSender.h"
#include "platform/ProcessInformation.h"

#include <chrono>
#include <memory>
#include <string>

namespace tavix {

class AppleEventComputerUseTransport final : public ComputerUseRequestTransport {
public:
  // The system services it needs, each behind its interface.
  struct Services {
    std::shared_ptr<RuntimeEventChannel> events;
    std::shared_ptr<RuntimeApplications> applications;
    std::shared_ptr<AutomationPermission> automation;
    std::shared_ptr<ProcessInformation> processes;
    BundleIdentifiers bundleIdentifiers;
    RuntimeLocationInputs locations;
    IPCBlockingSendExecutor *requestExecutor = nullptr;      // the process-wide one when null
    IPCBlockingSendExecutor *cancellationExecutor = nullptr; // the process-wide one when null
  };
  struct Timing {
    std::chrono::steady_clock::duration retryDelay = std::chrono::milliseconds(200);
    // How much longer than the event's own time-out the caller waits for a send that
    // does not come back: the event's time-out, with its clearer text, normally ends it.
    double raceGraceSeconds = 2.25;
    double cancellationTimeoutSeconds = 5.0;
    double healthProbeTimeoutSeconds = 1.0;
    RuntimeDiscovery::Timing discovery;
  };

  static constexpr int maxAttempts = 10;
  static constexpr double defaultTimeoutSeconds = 120;
  static constexpr double eventStreamStartTimeoutSeconds = 220;

  AppleEventComputerUseTransport(std::string clientVersion, Services services, Timing timing);
  // Over the system's services, the process-wide executors and the running program's
  // configuration.
  static std::unique_ptr<AppleEventComputerUseTransport> makeSystemTransport(std::string clientVersion);

  std::string_view transportName() const override { return "apple-events"; }
  bool hasEstablishedConnection() const override { return discovery_.selectedRuntimePID().has_value(); }
  using ComputerUseRequestTransport::send;
  ClientResult<std::string> send(std::string_view requestType, std::string requestData,
                                 std::optional<double> timeoutSeconds) override;

  void forgetSelectedRuntime() { discovery_.forgetSelectedRuntime(); }
  bool hasSelectedRuntime() const { return discovery_.selectedRuntimePID().has_value(); }

  // The time-out of one attempt without an explicit one.
  static double defaultTimeout(std::string_view requestType);

private:
  ClientResult<std::string> sendOnce(std::string_view requestType, std::shared_ptr<const std::string> data,
                                     double timeoutSeconds);
  ClientResult<std::string> sendWithRetries(std::string_view requestType, std::shared_ptr<const std::string> data);
  ClientResult<std::string> attemptAll(std::string_view requestType, const std::shared_ptr<const std::string> &data,
                                       std::chrono::steady_clock::time_point start);
  // One event to `pid` on the request executor, under the time-out race, with the
  // cancellation delivery prepared.
  ClientResult<std::string> sendRawEvent(int32_t pid, std::string_view requestType,
                                         std::shared_ptr<const std::string> data, double timeoutSeconds);
  RuntimeDiscovery::HealthProbe healthProbe();

  Timing timing_;
  std::shared_ptr<RuntimeEventSender> sender_;
  RuntimeDiscovery discovery_;
  IPCBlockingSendExecutor &requestExecutor_;
  IPCBlockingSendExecutor &cancellationExecutor_;
};

} // namespace tavix
