#pragma once
// The running instances of the runtime app, and starting one.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavix {

struct RunningRuntimeInstance {
  int32_t processIdentifier = 0;
  // Where the instance was started from, when known.
  std::optional<std::string> bundlePath;
  friend bool operator==(const RunningRuntimeInstance &, const RunningRuntimeInstance &) = default;
};

using LaunchEnvironment = std::vector<std::pair<std::string, std::string>>;
// Called once when a launch has started the app (nothing) or failed (the error's text).
using LaunchCompletion = std::function<void(std::optional<std::string> error)>;

class RuntimeApplications {
public:
  virtual ~RuntimeApplications() = default;
  // The running instances with this bundle identifier, the preferred order of the
  // system first, leaving out those that have terminated.
  virtual std::vector<RunningRuntimeInstance> runningInstances(const std::string &bundleIdentifier) = 0;
  // Whether process `pid` is a running instance with this bundle identifier.
  virtual bool isRunning(int32_t pid, const std::string &bundleIdentifier) = 0;
  // Opens the app at `path` with this process's environment plus `environment` (which
  // wins). `completion` may be called before this returns or later, on any thread.
  virtual void launch(const std::string &path, const LaunchEnvironment &environment,
                      LaunchCompletion completion) = 0;
};

std::unique_ptr<RuntimeApplications> makeSystemRuntimeApplications();

} // namespace tavix
