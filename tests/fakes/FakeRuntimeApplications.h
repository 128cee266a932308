#pragma once
// Running runtime instances as a test sets them, and launches that record what they were
// asked and complete as scripted: at once, with an error, or never. A successful launch
// may add an instance, like an app that registers once started.

#include "platform/RuntimeApplications.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavix::test {

class FakeRuntimeApplications final : public RuntimeApplications {
public:
  struct Launch {
    std::string path;
    LaunchEnvironment environment;
  };
  enum class LaunchOutcome { started, failed, neverCompletes };

  void setInstances(std::vector<RunningRuntimeInstance> instances) {
    std::lock_guard lock(mutex_);
    instances_ = std::move(instances);
  }
  // What the next launches do; `appears` joins the running instances on success.
  void scriptLaunch(LaunchOutcome outcome, std::optional<RunningRuntimeInstance> appears = std::nullopt,
                    std::string error = "launch failed") {
    std::lock_guard lock(mutex_);
    launchOutcome_ = outcome;
    appears_ = std::move(appears);
    launchError_ = std::move(error);
  }

  std::vector<RunningRuntimeInstance> runningInstances(const std::string &bundleIdentifier) override {
    std::lock_guard lock(mutex_);
    queriedBundleIdentifiers_.push_back(bundleIdentifier);
    return instances_;
  }
  bool isRunning(int32_t pid, const std::string &) override {
    std::lock_guard lock(mutex_);
    for (const auto &instance : instances_)
      if (instance.processIdentifier == pid)
        return true;
    return false;
  }
  void launch(const std::string &path, const LaunchEnvironment &environment, LaunchCompletion completion) override {
    LaunchOutcome outcome;
    std::string error;
    {
      std::lock_guard lock(mutex_);
      launches_.push_back({path, environment});
      outcome = launchOutcome_;
      error = launchError_;
      if (outcome == LaunchOutcome::started && appears_)
        instances_.push_back(*appears_);
      if (outcome == LaunchOutcome::neverCompletes)
        pending_.push_back(std::move(completion));
    }
    if (outcome == LaunchOutcome::started)
      completion(std::nullopt);
    else if (outcome == LaunchOutcome::failed)
      completion(error);
  }
  // Completes the launches that never completed on their own, as a late callback would.
  void completeLateLaunches() {
    std::vector<LaunchCompletion> pending;
    {
      std::lock_guard lock(mutex_);
      pending.swap(pending_);
    }
    for (auto &completion : pending)
      completion(std::nullopt);
  }

  std::vector<Launch> launches() const {
    std::lock_guard lock(mutex_);
    return launches_;
  }
  std::vector<std::string> queriedBundleIdentifiers() const {
    std::lock_guard lock(mutex_);
    return queriedBundleIdentifiers_;
  }

private:
  mutable std::mutex mutex_;
  std::vector<RunningRuntimeInstance> instances_;
  LaunchOutcome launchOutcome_ = LaunchOutcome::failed;
  std::optional<RunningRuntimeInstance> appears_;
  std::string launchError_ = "launch failed";
  std::vector<Launch> launches_;
  std::vector<LaunchCompletion> pending_;
  std::vector<std::string> queriedBundleIdentifiers_;
};

} // namespace tavix::test
