#pragma once
// Captures the logger's standard-error lines for the life of the object, and sends
// unified-log lines to the given log (none by default). Rate limits read the given
// monotonic clock, or the real one.

#include "platform/UnifiedLog.h"
#include "logging/Logger.h"

#include <mutex>
#include <string>
#include <vector>

namespace tavix::test {

class CapturedLog {
public:
  explicit CapturedLog(std::shared_ptr<UnifiedLog> unifiedLog = nullptr,
                       std::function<std::chrono::steady_clock::time_point()> monotonicNow = nullptr) {
    auto sinks = Log::defaultSinks();
    sinks.unifiedLog = std::move(unifiedLog);
    if (monotonicNow)
      sinks.monotonicNow = std::move(monotonicNow);
    sinks.writeStderr = [this](std::string_view line) {
      std::lock_guard guard(lock_);
      lines_.emplace_back(line);
    };
    previous_ = Log::replaceSinks(std::move(sinks));
  }
  ~CapturedLog() { Log::replaceSinks(std::move(previous_)); }
  CapturedLog(const CapturedLog &) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard guard(lock_);
    return lines_;
  }
  // Lines of one event, e.g. withEvent("transport_closed").
  std::vector<std::string> withEvent(std::string_view event) const {
    const std::string needle = " event=" + std::string(event);
    std::vector<std::string> found;
    for (const auto &line : lines())
      if (line.find(needle + " ") != std::string::npos || line.ends_with(needle + "\n"))
        found.push_back(line);
    return found;
  }

private:
  mutable std::mutex lock_;
  std::vector<std::string> lines_;
  TavixComputerUseLogger::Sinks previous_;
};

} // namespace tavix::test
