#pragma once
// Severity levels and categories of the structured logger.

#include <array>
#include <optional>
#include <string_view>

namespace tavix {

// Ordered from least to most severe; every threshold comparison uses this order.
enum class TavixComputerUseLogLevel { debug, info, warning, error, fault };

enum class TavixComputerUseLogCategory {
  transport,
  ipc,
  lifecycle,
  authorization,
  permissions,
  capture,
  accessibility,
  windows,
  tools,
  input,
  appDiscovery,
  session,
  logging,
};

using LogLevel = TavixComputerUseLogLevel;
using LogCategory = TavixComputerUseLogCategory;

inline constexpr std::array<LogLevel, 5> allLogLevels = {
    LogLevel::debug, LogLevel::info, LogLevel::warning, LogLevel::error, LogLevel::fault};

constexpr std::string_view rawValue(LogLevel level) {
  constexpr std::array<std::string_view, 5> names = {"debug", "info", "warning", "error", "fault"};
  return names[static_cast<size_t>(level)];
}

constexpr std::string_view rawValue(LogCategory category) {
  constexpr std::array<std::string_view, 13> names = {
      "transport", "ipc",   "lifecycle", "authorization", "permissions", "capture", "accessibility",
      "windows",   "tools", "input",     "app-discovery", "session",     "logging"};
  return names[static_cast<size_t>(category)];
}

// Accepts only the five exact lower-case words.
constexpr std::optional<LogLevel> parseLogLevel(std::string_view text) {
  for (LogLevel level : allLogLevels)
    if (rawValue(level) == text)
      return level;
  return std::nullopt;
}

} // namespace tavix
