#pragma once
// Captured log lines as these tests compare them, without the time stamp and the process:
// "level=error category=transport event=mcp_request_unanswered mcpRequestID=7 method=m".

#include "fakes/CapturedLog.h"

namespace tavix::test {

// Every line captured so far, or only those of `event`.
inline std::vector<std::string> logLines(const CapturedLog &log, std::string_view event = {}) {
  std::vector<std::string> lines;
  for (const std::string &line : event.empty() ? log.lines() : log.withEvent(event)) {
    const size_t level = line.find("level="), category = line.find(" category=");
    lines.push_back(line.substr(level, line.find(' ', level) - level) +
                    line.substr(category, line.size() - category - 1));
  }
  return lines;
}

} // namespace tavix::test
