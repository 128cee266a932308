#pragma once
// The system's unified log: where log lines are mirrored beside standard error.

#include <memory>
#include <string_view>

namespace tavix {

// The system log's own severities, in the order of the logger's levels.
enum class UnifiedLogType { debug, info, defaultType, error, fault };

// A log handle for one subsystem and category.
class UnifiedLogHandle {
public:
  virtual ~UnifiedLogHandle() = default;
  virtual bool isEnabled(UnifiedLogType type) const = 0;
  virtual void log(UnifiedLogType type, std::string_view line) = 0;
};

class UnifiedLog {
public:
  virtual ~UnifiedLog() = default;
  virtual std::unique_ptr<UnifiedLogHandle> makeHandle(std::string_view subsystem,
                                                       std::string_view category) = 0;
};

// The implementation for the platform this was built for.
std::shared_ptr<UnifiedLog> makeSystemUnifiedLog();

} // namespace tavix
