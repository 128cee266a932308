#pragma once
// Turns one log call into one line of `key=value` text.

#include "logging/LogLevel.h"
#include "logging/LogValue.h"

#include <chrono>
#include <string>
#include <string_view>

namespace tavix {

inline constexpr size_t maxEncodedLineBytes = 16384;
inline constexpr size_t maxEncodedValueCharacters = 1024;

struct LogProcessInfo {
  std::string name; // the executable's file name
  int pid = 0;
};

// What a line needs besides the call itself; passed in so that encoding is pure.
struct LogLineContext {
  std::chrono::system_clock::time_point now;
  LogProcessInfo process;
  std::string_view requestID; // the request being served, empty outside one
  std::string_view home;      // the home directory, for path sanitizing
};

// "2026-03-04T15:07:09.123+08:00" in the local time zone ("Z" for a zero offset).
std::string formatLogTimestamp(std::chrono::system_clock::time_point now);

// "Bridge" or "Runtime" when the process name says so, else the name itself.
std::string_view processLabel(std::string_view processName);

bool isValidLogFieldKey(std::string_view key);

std::string encodeLogValue(const LogValue &value, std::string_view key, std::string_view home);

// The whole line, newline included, at most maxEncodedLineBytes long.
std::string encodeLogLine(LogLevel level, LogCategory category, std::string_view event,
                          const LogFields &fields, const LogLineContext &context);

} // namespace tavix
