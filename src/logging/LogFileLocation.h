#pragma once
// Where the log file goes: an explicit directory from the environment, else the host's
// newest log session directory, so that this process's lines sit next to the host's own.

#include "platform/Environment.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavix {

inline constexpr std::string_view logFileName = "computer-use-runtime.log";
inline constexpr const char *logDirectoryEnvironmentKey = "TAVIX_CU_LOG_DIR";
inline constexpr const char *logsHomeEnvironmentKey = "TAVIX_IDE_LOGS_HOME";
// Files whose presence marks a directory as one of the host's log sessions.
inline constexpr std::string_view markerFileNames[] = {"main.log", "sharedprocess.log"};

// TAVIX_CU_LOG_DIR, else TAVIX_IDE_LOGS_HOME, trimmed; nothing when both are blank.
std::optional<std::string> explicitLogDirectory(const EnvironmentLookup &environment);

bool isTavixCNBundleIdentifier(const std::optional<std::string> &bundleIdentifier);

// The directory under which the host keeps one directory per session.
std::string defaultTavixLogsRoot(const std::optional<std::string> &bundleIdentifier,
                                 std::string_view homeDirectory,
                                 const EnvironmentLookup &environment);

// "20260304T150709": the local time, to the second.
std::string timestampDirectoryName(std::chrono::system_clock::time_point date);
bool isTimestampDirectoryName(std::string_view name);

// The session directories of a logs root, newest first; empty when it cannot be read.
std::vector<std::string> timestampLogDirectories(const std::string &root);

// The newest session directory that holds a marker file, else the newest; when there is
// none, a new one named for `now` is created.
std::string resolveLatestTavixLogDirectory(const std::string &root,
                                           std::chrono::system_clock::time_point now);

// The log file to write. Its directory is created if need be; a failure to create it
// is reported to the system log only, since standard error may be what is being set up.
std::string resolveLogFileURL(const EnvironmentLookup &environment,
                              std::chrono::system_clock::time_point now,
                              const std::optional<std::string> &bundleIdentifier,
                              std::string_view homeDirectory);

} // namespace tavix
