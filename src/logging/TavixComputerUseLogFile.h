#pragma once
// Sends standard error, and with it every log line, into the log file beside the host's
// own logs; follows the host to a newer log session while the process runs, and keeps
// the file from growing without bound.

#include "platform/Environment.h"
#include "support/HomeDirectory.h"
#include "logging/LogFileCompaction.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace tavix {

// Points one descriptor (standard error in the process) at the current log file.
class StderrRedirection {
public:
  struct Options {
    EnvironmentLookup environment = processEnvironment();
    std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
    std::optional<std::string> bundleIdentifier = {}; // picks the logs root of the CN host
    std::function<std::string()> homeDirectory = tavix::homeDirectory;
    int targetDescriptor = 2;
    LogFileLimits limits = {};
  };

  explicit StderrRedirection(Options options) : options_(std::move(options)) {}

  // Resolves the log file, compacts it if need be, and moves the descriptor to it when
  // it is not the current one. Failures go to the system log only; the descriptor then
  // keeps pointing where it did.
  void redirectIfNeeded();
  std::optional<std::string> currentLogPath() const;

private:
  bool attach(const std::string &path);

  Options options_;
  mutable std::mutex lock_; // serializes runs; held for a whole run
  std::optional<std::string> currentLogURL_;
};

class TavixComputerUseLogFile {
public:
  // Redirects at once and then every `refreshIntervalSeconds` (when above zero). Only
  // the first call in a process has an effect.
  static void installStderrRedirection(double refreshIntervalSeconds);
  static void redirectStderrIfNeeded();
};

} // namespace tavix
