#pragma once
// Finding the runtime app to send to: the instance chosen before while it still runs,
// else the best of the running ones, else one launched from the first place it is
// installed. The choice is remembered until the caller forgets it.

#include "client/ClientFailure.h"
#include "client/RuntimeBundleLocations.h"
#include "platform/RuntimeApplications.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tavix {

class RuntimeDiscovery {
public:
  struct Timing {
    // How long a launch may take to report that it started the app.
    std::chrono::steady_clock::duration launchCallbackTimeout = std::chrono::seconds(10);
    // How long a started app may take to appear among the running instances, and how
    // often to look.
    std::chrono::steady_clock::duration appearanceTimeout = std::chrono::seconds(10);
    std::chrono::steady_clock::duration appearancePollInterval = std::chrono::milliseconds(20);
  };
  // A health answer from one instance, or nothing when it gave none in time.
  using HealthProbe = std::function<std::optional<ComputerUseIPCHealthResponse>(int32_t pid)>;

  RuntimeDiscovery(std::shared_ptr<RuntimeApplications> applications, BundleIdentifiers bundleIdentifiers,
                   RuntimeLocationInputs locations, Timing timing)
      : applications_(std::move(applications)), bundleIdentifiers_(std::move(bundleIdentifiers)),
        locations_(std::move(locations)), timing_(timing) {}

  std::optional<int32_t> selectedRuntimePID() const;
  void forgetSelectedRuntime();
  // The selected instance if it still runs.
  std::optional<int32_t> selectedRunningRuntime() const;

  // The selected instance while it runs; else the best running one, probed with
  // `probe` when there are several; nothing when none runs.
  std::optional<int32_t> runningRuntime(const HealthProbe &probe);
  // As above, launching the app first when none runs.
  ClientResult<int32_t> ensureRuntimeRunning(const HealthProbe &probe);

  // The environment the launched app gets on top of the bridge's: the explicit log
  // directory, so that it logs beside the bridge.
  LaunchEnvironment launchEnvironment() const;

private:
  ClientResult<void> launchRuntimeIfPossible();
  ClientResult<void> launchRuntime(const std::string &path);
  std::optional<int32_t> chooseAmong(std::vector<RunningRuntimeInstance> instances, const HealthProbe &probe);
  std::optional<int32_t> awaitAppearance(const HealthProbe &probe);

  std::shared_ptr<RuntimeApplications> applications_;
  BundleIdentifiers bundleIdentifiers_;
  RuntimeLocationInputs locations_;
  Timing timing_;
  mutable std::mutex mutex_;
  std::optional<int32_t> selectedPID_;
  std::mutex launchMutex_;
};

} // namespace tavix
