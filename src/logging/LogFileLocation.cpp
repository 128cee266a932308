#include "logging/LogFileLocation.h"

#include "platform/UserDirectories.h"
#include "logging/Logger.h"
#include "support/Whitespace.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace tavix {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> trimmedVariable(const EnvironmentLookup &environment,
                                           const char *name) {
  const auto value = environment(name);
  return trimmedNonEmpty(value ? &*value : nullptr);
}

bool isDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int number(std::string_view digits) {
  int value = 0;
  for (char c : digits)
    value = value * 10 + (c - '0');
  return value;
}

bool containsMarker(const fs::path &directory) {
  for (std::string_view marker : markerFileNames) {
    std::error_code error;
    if (fs::exists(directory / marker, error))
      return true;
  }
  return false;
}

void createDirectories(const std::string &directory) {
  std::error_code error;
  fs::create_directories(directory, error);
  if (error)
    Log::emergencyUnifiedFault(LogCategory::logging, "log_directory_create_failed",
                               {{"directoryPath", directory},
                                {"error", LogError::fromErrorCode(error)}});
}

} // namespace

std::optional<std::string> explicitLogDirectory(const EnvironmentLookup &environment) {
  if (auto directory = trimmedVariable(environment, logDirectoryEnvironmentKey))
    return directory;
  return trimmedVariable(environment, logsHomeEnvironmentKey);
}

bool isTavixCNBundleIdentifier(const std::optional<std::string> &bundleIdentifier) {
  if (!bundleIdentifier)
    return false;
  const std::string normalized = asciiLowercased(trimmedWhitespaceAndNewlines(*bundleIdentifier));
  return normalized == "com.tavix.cn.computeruse" || normalized == "com.tavix.cn.computeruse.bridge";
}

std::string defaultTavixLogsRoot(const std::optional<std::string> &bundleIdentifier,
                                 std::string_view homeDirectory,
                                 const EnvironmentLookup &environment) {
  return applicationSupportDirectory(homeDirectory, environment) +
         (isTavixCNBundleIdentifier(bundleIdentifier) ? "/TavixCN/logs" : "/Tavix/logs");
}

std::string timestampDirectoryName(std::chrono::system_clock::time_point date) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  localtime_r(&seconds, &local);
  char name[32];
  std::snprintf(name, sizeof name, "%04d%02d%02dT%02d%02d%02d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return name;
}

// Exactly the form that timestampDirectoryName writes, with every field in its range.
bool isTimestampDirectoryName(std::string_view name) {
  if (name.size() != 15 || name[8] != 'T' || !isDigits(name.substr(0, 8)) ||
      !isDigits(name.substr(9)))
    return false;
  const int month = number(name.substr(4, 2));
  const int day = number(name.substr(6, 2));
  return month >= 1 && month <= 12 && day >= 1 && day <= 31 && number(name.substr(9, 2)) <= 23 &&
         number(name.substr(11, 2)) <= 59 && number(name.substr(13, 2)) <= 60;
}

std::vector<std::string> timestampLogDirectories(const std::string &root) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(root, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code typeError;
    const std::string name = entry->path().filename().string();
    if (isTimestampDirectoryName(name) && entry->is_directory(typeError))
      names.push_back(name);
  }
  std::sort(names.begin(), names.end(), std::greater<>());
  return names;
}

std::string resolveLatestTavixLogDirectory(const std::string &root,
                                           std::chrono::system_clock::time_point now) {
  const auto sessions = timestampLogDirectories(root);
  if (sessions.empty()) {
    // A failure here shows again, and is reported, when the log directory is created.
    const std::string created = root + "/" + timestampDirectoryName(now);
    std::error_code ignored;
    fs::create_directories(created, ignored);
    return created;
  }
  for (const std::string &name : sessions)
    if (containsMarker(fs::path(root) / name))
      return root + "/" + name;
  return root + "/" + sessions.front();
}

std::string resolveLogFileURL(const EnvironmentLookup &environment,
                              std::chrono::system_clock::time_point now,
                              const std::optional<std::string> &bundleIdentifier,
                              std::string_view homeDirectory) {
  std::string directory;
  if (auto explicitDirectory = explicitLogDirectory(environment))
    directory = std::move(*explicitDirectory);
  else
    directory = resolveLatestTavixLogDirectory(
        defaultTavixLogsRoot(bundleIdentifier, homeDirectory, environment), now);
  createDirectories(directory);
  if (!directory.ends_with('/'))
    directory += '/';
  return directory + std::string(logFileName);
}

} // namespace tavix
