#include "logging/Logger.h"

#include "platform/ExecutableLocation.h"
#include "platform/UnifiedLog.h"
#include "support/HomeDirectory.h"
#include "logging/LogLineEncoder.h"
#include "support/RequestContext.h"
#include "support/Whitespace.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sys/file.h>
#include <utility>
#include <unistd.h>

namespace tavix {
namespace {

struct RateLimitState {
  std::chrono::steady_clock::time_point lastEmittedAt;
  int64_t suppressedCount = 0;
};

struct LoggerState {
  std::mutex stateLock;
  // Serializes writes of whole lines. Separate from stateLock because a write may wait
  // for the file lock of a compaction, which itself needs the clock behind stateLock.
  std::mutex writeLock;
  TavixComputerUseLogger::Sinks sinks = TavixComputerUseLogger::defaultSinks();
  std::map<std::string, std::shared_ptr<UnifiedLogHandle>, std::less<>> loggers;
  std::map<std::string, RateLimitState, std::less<>> rateLimitStates;
  std::string processName = currentExecutableName();
};

// Never destroyed: threads may still log while the process exits.
LoggerState &state() {
  static LoggerState *instance = new LoggerState();
  return *instance;
}

std::optional<LogLevel> levelFromEnvironment(const char *key) {
  const char *value = std::getenv(key);
  if (value == nullptr)
    return std::nullopt;
  return parseLogLevel(asciiLowercased(trimmedWhitespaceAndNewlines(value)));
}

UnifiedLogType unifiedType(LogLevel level) {
  switch (level) {
  case LogLevel::debug:
    return UnifiedLogType::debug;
  case LogLevel::info:
    return UnifiedLogType::info;
  case LogLevel::warning:
    return UnifiedLogType::defaultType;
  case LogLevel::error:
    return UnifiedLogType::error;
  case LogLevel::fault:
    return UnifiedLogType::fault;
  }
  return UnifiedLogType::info;
}

std::string encodeForCurrentRequest(LogLevel level, LogCategory category, std::string_view event,
                                    const LogFields &fields,
                                    std::chrono::system_clock::time_point now) {
  LoggerState &s = state();
  const auto context = RequestContext::current();
  const std::string home = homeDirectory();
  return encodeLogLine(level, category, event, fields,
                       {now, {s.processName, static_cast<int>(getpid())},
                        context->correlationID(), home});
}

void mirrorToUnifiedLog(const std::string &line, LogCategory category, LogLevel level) {
  LoggerState &s = state();
  std::shared_ptr<UnifiedLogHandle> handle;
  {
    std::lock_guard lock(s.stateLock);
    if (!s.sinks.unifiedLog)
      return;
    auto &slot = s.loggers[std::string(rawValue(category))];
    if (!slot)
      slot = s.sinks.unifiedLog->makeHandle(logSubsystem, rawValue(category));
    handle = slot;
  }
  const UnifiedLogType type = unifiedType(level);
  if (handle->isEnabled(type))
    handle->log(type, line);
}

std::chrono::system_clock::time_point wallNow() {
  LoggerState &s = state();
  std::lock_guard lock(s.stateLock);
  return s.sinks.now();
}

} // namespace

TavixComputerUseLogger::Sinks TavixComputerUseLogger::defaultSinks() {
  return {&TavixComputerUseLogger::writeLineToStderr, nullptr,
          [] { return std::chrono::system_clock::now(); },
          [] { return std::chrono::steady_clock::now(); }};
}

TavixComputerUseLogger::Sinks TavixComputerUseLogger::replaceSinks(Sinks sinks) {
  LoggerState &s = state();
  std::lock_guard lock(s.stateLock);
  s.loggers.clear();
  s.rateLimitStates.clear();
  return std::exchange(s.sinks, std::move(sinks));
}

void TavixComputerUseLogger::log(LogLevel level, LogCategory category, std::string_view event,
                                 const LogFields &fields) {
  // Read afresh on every call, so a change to the environment applies to the next line.
  const auto stderrThreshold = levelFromEnvironment(logLevelEnvironmentKey).value_or(LogLevel::info);
  const auto mirrorLevel = levelFromEnvironment(osLogMirrorLevelEnvironmentKey);
  const auto mirrorThreshold = mirrorLevel.value_or(LogLevel::info);
  const LogLevel floor =
      mirrorLevel ? std::min(stderrThreshold, mirrorThreshold) : std::min(stderrThreshold, LogLevel::info);
  if (level < floor)
    return;

  const std::string line = encodeForCurrentRequest(level, category, event, fields, wallNow());
  if (level >= stderrThreshold) {
    LoggerState &s = state();
    std::function<void(std::string_view)> write;
    {
      std::lock_guard lock(s.stateLock);
      write = s.sinks.writeStderr;
    }
    std::lock_guard lock(s.writeLock);
    write(line);
  }
  if (level >= mirrorThreshold)
    mirrorToUnifiedLog(line, category, level);
}

void TavixComputerUseLogger::rateLimitedWarning(LogCategory category, std::string_view event,
                                                double intervalSeconds, const LogFields &fields) {
  const std::string key = std::string(rawValue(category)) + "|" + std::string(event);
  // NaN fails the comparison and so also counts as one second.
  const double effective = intervalSeconds >= 1.0 ? intervalSeconds : 1.0;
  LogFields extended = fields;
  {
    LoggerState &s = state();
    std::lock_guard lock(s.stateLock);
    const auto now = s.sinks.monotonicNow();
    auto found = s.rateLimitStates.find(key);
    if (found != s.rateLimitStates.end()) {
      const std::chrono::duration<double> elapsed = now - found->second.lastEmittedAt;
      if (elapsed.count() < effective) {
        ++found->second.suppressedCount;
        return;
      }
      if (found->second.suppressedCount > 0)
        extended["suppressedCount"] = found->second.suppressedCount;
    }
    s.rateLimitStates[key] = RateLimitState{now, 0};
  }
  log(LogLevel::warning, category, event, extended);
}

std::string TavixComputerUseLogger::encodeLine(LogLevel level, LogCategory category,
                                               std::string_view event, const LogFields &fields) {
  return encodeForCurrentRequest(level, category, event, fields, wallNow());
}

void TavixComputerUseLogger::emergencyUnifiedFault(LogCategory category, std::string_view event,
                                                   const LogFields &fields) {
  const std::string line =
      encodeForCurrentRequest(LogLevel::fault, category, event, fields, wallNow());
  mirrorToUnifiedLog(line, category, LogLevel::fault);
}

void TavixComputerUseLogger::writeLineToStderr(std::string_view line) {
  if (line.empty())
    return;
  // Shared, not exclusive: other writers in this process family append whole lines too,
  // while whoever rewrites the file takes the lock exclusively.
  flock(STDERR_FILENO, LOCK_SH);
  size_t written = 0;
  while (written < line.size()) {
    const ssize_t n = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
    if (n > 0) {
      written += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  flock(STDERR_FILENO, LOCK_UN);
}

} // namespace tavix
