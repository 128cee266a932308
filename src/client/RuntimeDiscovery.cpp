#include "client/RuntimeDiscovery.h"

#include "logging/LogFileLocation.h"
#include "logging/Logger.h"
#include "support/CancellableWait.h"
#include "support/RequestContext.h"

#include <condition_variable>
#include <filesystem>

namespace tavix {
namespace {

// Delivers a launch's completion once, whether the callback or the caller's time-out
// comes first; a late callback finds nobody waiting and is dropped.
struct LaunchState {
  std::mutex mutex;
  std::condition_variable_any completed;
  bool resumed = false;
  std::optional<std::string> error;

  void complete(std::optional<std::string> launchError) {
    {
      std::lock_guard lock(mutex);
      if (resumed)
        return;
      resumed = true;
      error = std::move(launchError);
    }
    completed.notify_all();
  }
};

} // namespace

std::optional<int32_t> RuntimeDiscovery::selectedRuntimePID() const {
  std::lock_guard lock(mutex_);
  return selectedPID_;
}

void RuntimeDiscovery::forgetSelectedRuntime() {
  std::lock_guard lock(mutex_);
  selectedPID_.reset();
}

std::optional<int32_t> RuntimeDiscovery::selectedRunningRuntime() const {
  const auto selected = selectedRuntimePID();
  if (selected && applications_->isRunning(*selected, bundleIdentifiers_.computerUseRuntime()))
    return selected;
  return std::nullopt;
}

std::optional<int32_t> RuntimeDiscovery::runningRuntime(const HealthProbe &probe) {
  if (auto selected = selectedRunningRuntime())
    return selected;
  return chooseAmong(applications_->runningInstances(bundleIdentifiers_.computerUseRuntime()), probe);
}

std::optional<int32_t> RuntimeDiscovery::chooseAmong(std::vector<RunningRuntimeInstance> instances,
                                                     const HealthProbe &probe) {
  std::vector<RuntimeSelectionCandidate> candidates;
  for (auto &instance : instances) {
    RuntimeSelectionCandidate candidate{instance.processIdentifier, std::move(instance.bundlePath), std::nullopt};
    if (instances.size() > 1)
      candidate.health = probe(candidate.processIdentifier);
    candidates.push_back(std::move(candidate));
  }
  auto chosen = selectPreferredRuntimeCandidate(std::move(candidates), expectedRuntimeBundlePaths(locations_));
  if (!chosen)
    return std::nullopt;
  std::lock_guard lock(mutex_);
  selectedPID_ = chosen->processIdentifier;
  return selectedPID_;
}

ClientResult<int32_t> RuntimeDiscovery::ensureRuntimeRunning(const HealthProbe &probe) {
  if (auto running = runningRuntime(probe))
    return *running;
  // One launch at a time: a call and the heartbeat that both find no runtime would
  // otherwise start two. The second finds the first one's runtime when it gets its turn.
  std::lock_guard launching(launchMutex_);
  if (auto running = runningRuntime(probe))
    return *running;
  if (auto launched = launchRuntimeIfPossible(); !launched)
    return tl::unexpected(std::move(launched.error()));
  if (auto appeared = awaitAppearance(probe))
    return *appeared;
  if (RequestContext::current()->isCancelled())
    return tl::unexpected(ClientFailure(CancellationError{}));
  return tl::unexpected(ClientFailure(ClientError::runtimeNotRunning()));
}

std::optional<int32_t> RuntimeDiscovery::awaitAppearance(const HealthProbe &probe) {
  const auto deadline = std::chrono::steady_clock::now() + timing_.appearanceTimeout;
  while (true) {
    if (auto running = runningRuntime(probe))
      return running;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline || !waitUnlessCancelled(std::min(timing_.appearancePollInterval, deadline - now)))
      return std::nullopt;
  }
}

LaunchEnvironment RuntimeDiscovery::launchEnvironment() const {
  if (auto directory = explicitLogDirectory(locations_.environment))
    return {{logDirectoryEnvironmentKey, *directory}};
  return {};
}

ClientResult<void> RuntimeDiscovery::launchRuntimeIfPossible() {
  for (const auto &candidate : runtimeBundleCandidates(locations_)) {
    std::error_code error;
    if (std::filesystem::exists(candidate, error))
      return launchRuntime(candidate);
  }
  return tl::unexpected(ClientFailure(ClientError::runtimeLaunchFailed(
      "set TAVIX_COMPUTER_USE_RUNTIME_PATH to " + bundleIdentifiers_.runtimeAppName() + " in development")));
}

ClientResult<void> RuntimeDiscovery::launchRuntime(const std::string &path) {
  Log::info(LogCategory::ipc, "runtime_launch_started", {{"bundlePath", path}});
  auto state = std::make_shared<LaunchState>();
  applications_->launch(path, launchEnvironment(),
                        [state](std::optional<std::string> error) { state->complete(std::move(error)); });
  std::stop_token cancellation = RequestContext::current()->cancellation();
  std::unique_lock lock(state->mutex);
  state->completed.wait_for(lock, cancellation, timing_.launchCallbackTimeout, [&] { return state->resumed; });
  if (!state->resumed) {
    state->resumed = true; // a late callback is dropped
    if (cancellation.stop_requested())
      return tl::unexpected(ClientFailure(CancellationError{}));
    return tl::unexpected(ClientFailure(ClientError::runtimeLaunchFailed("launch callback timed out")));
  }
  if (state->error) {
    Log::error(LogCategory::ipc, "runtime_launch_callback_failed", {{"bundlePath", path}});
    return tl::unexpected(ClientFailure(ClientError::runtimeLaunchFailed(*state->error)));
  }
  return {};
}

} // namespace tavix
