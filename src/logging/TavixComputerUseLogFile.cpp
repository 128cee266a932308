#include "logging/TavixComputerUseLogFile.h"

#include "logging/LogFileLocation.h"
#include "logging/Logger.h"
#include "config/MainBundle.h"
#include "logging/RepeatingTimer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace tavix {

void StderrRedirection::redirectIfNeeded() {
  const std::string path = resolveLogFileURL(options_.environment, options_.now(),
                                             options_.bundleIdentifier, options_.homeDirectory());
  std::lock_guard guard(lock_);
  // The file is rewritten in place, so a descriptor that points at it stays valid and
  // needs no reopening.
  compactLogFileIfNeeded(path, options_.limits);
  if (currentLogURL_ == path || !attach(path))
    return;
  currentLogURL_ = path;
  // Through the normal logger, so that the line is the first of the new file.
  Log::info(LogCategory::logging, "stderr_sink_attached", {{"logPath", path}});
}

bool StderrRedirection::attach(const std::string &path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    Log::emergencyUnifiedFault(LogCategory::logging, "log_file_open_failed",
                               {{"errno", errno}, {"logPath", path}});
    return false;
  }
  std::fflush(stderr);
  if (fd == options_.targetDescriptor) {
    // The target was closed, so the file took its number: keep it, open across exec
    // like any standard error.
    ::fcntl(fd, F_SETFD, 0);
    return true;
  }
  if (::dup2(fd, options_.targetDescriptor) < 0) {
    Log::emergencyUnifiedFault(LogCategory::logging, "stderr_redirect_failed",
                               {{"errno", errno}, {"logPath", path}});
    ::close(fd);
    return false;
  }
  ::close(fd);
  return true;
}

std::optional<std::string> StderrRedirection::currentLogPath() const {
  std::lock_guard guard(lock_);
  return currentLogURL_;
}

namespace {

// Process-wide and never destroyed: the timer's thread may still run while the process
// exits.
StderrRedirection &processRedirection() {
  // The bundle identifier is the program's own and does not change while it runs.
  static auto *redirection =
      new StderrRedirection(StderrRedirection::Options{.bundleIdentifier = mainBundleIdentifier()});
  return *redirection;
}

} // namespace

namespace {

RepeatingTimer *refreshTimer = nullptr;

// A run cut short by the end of the process could leave a compaction half done, so an
// exit waits for the run in progress and stops the timer.
void stopRefreshing() {
  delete refreshTimer;
  refreshTimer = nullptr;
}

} // namespace

void TavixComputerUseLogFile::installStderrRedirection(double refreshIntervalSeconds) {
  static std::once_flag installed;
  std::call_once(installed, [refreshIntervalSeconds] {
    redirectStderrIfNeeded();
    if (refreshIntervalSeconds > 0) {
      const auto interval = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
          std::chrono::duration<double>(refreshIntervalSeconds));
      refreshTimer = new RepeatingTimer(interval, [] { redirectStderrIfNeeded(); });
      std::atexit(stopRefreshing);
    }
  });
}

void TavixComputerUseLogFile::redirectStderrIfNeeded() { processRedirection().redirectIfNeeded(); }

} // namespace tavix
