#pragma once
// The process-wide structured logger: one `key=value` line per event, written to
// standard error and mirrored into the system's unified log.

#include "logging/LogLevel.h"
#include "logging/LogValue.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tavix {

class UnifiedLog;

inline constexpr std::string_view logSubsystem = "com.tavix.computeruse";
inline constexpr const char *logLevelEnvironmentKey = "TAVIX_COMPUTER_USE_LOG_LEVEL";
inline constexpr const char *osLogMirrorLevelEnvironmentKey =
    "TAVIX_COMPUTER_USE_OSLOG_MIRROR_LEVEL";

class TavixComputerUseLogger {
public:
  // Where lines go and where time comes from. The process starts with standard error
  // and no unified log; the entry point installs the system's, and tests their own.
  struct Sinks {
    std::function<void(std::string_view line)> writeStderr;
    std::shared_ptr<UnifiedLog> unifiedLog;
    std::function<std::chrono::system_clock::time_point()> now;
    std::function<std::chrono::steady_clock::time_point()> monotonicNow;
  };

  static void log(LogLevel level, LogCategory category, std::string_view event,
                  const LogFields &fields = {});
  static void debug(LogCategory c, std::string_view event, const LogFields &fields = {}) {
    log(LogLevel::debug, c, event, fields);
  }
  static void info(LogCategory c, std::string_view event, const LogFields &fields = {}) {
    log(LogLevel::info, c, event, fields);
  }
  static void warning(LogCategory c, std::string_view event, const LogFields &fields = {}) {
    log(LogLevel::warning, c, event, fields);
  }
  static void error(LogCategory c, std::string_view event, const LogFields &fields = {}) {
    log(LogLevel::error, c, event, fields);
  }
  static void fault(LogCategory c, std::string_view event, const LogFields &fields = {}) {
    log(LogLevel::fault, c, event, fields);
  }

  // A warning emitted at most once per interval (at least one second) for the same
  // category and event; the next line counts what was swallowed in "suppressedCount".
  static void rateLimitedWarning(LogCategory category, std::string_view event,
                                 double intervalSeconds, const LogFields &fields = {});

  // A fault line for the unified log only, for when standard error may be unusable.
  static void emergencyUnifiedFault(LogCategory category, std::string_view event,
                                    const LogFields &fields = {});

  // The line that `log` would write, stamped now, without writing it anywhere.
  static std::string encodeLine(LogLevel level, LogCategory category, std::string_view event,
                                const LogFields &fields = {});

  // Replaces the sinks and returns the previous ones. Also forgets cached unified-log
  // handles and rate-limit state, which belong to the sinks they were made for.
  static Sinks replaceSinks(Sinks sinks);
  static Sinks defaultSinks();

  // The standard-error sink: one whole line under a shared lock on descriptor 2.
  static void writeLineToStderr(std::string_view line);
};

using Log = TavixComputerUseLogger;

} // namespace tavix
