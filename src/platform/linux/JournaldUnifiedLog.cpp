// Mirrors log lines into the systemd journal.

#include "platform/UnifiedLog.h"

#include "platform/ExecutableLocation.h"

#include <string>
#include <sys/stat.h>
#include <systemd/sd-journal.h>

namespace tavix {
namespace {

int journalPriority(UnifiedLogType type) {
  switch (type) {
  case UnifiedLogType::debug:
    return 7;
  case UnifiedLogType::info:
    return 6;
  case UnifiedLogType::defaultType:
    return 5;
  case UnifiedLogType::error:
    return 3;
  case UnifiedLogType::fault:
    return 2;
  }
  return 6;
}

bool journalIsListening() {
  struct stat info {};
  return stat("/run/systemd/journal/socket", &info) == 0 && S_ISSOCK(info.st_mode);
}

class JournaldHandle final : public UnifiedLogHandle {
public:
  JournaldHandle(std::string subsystem, std::string category, std::string identifier)
      : subsystem_(std::move(subsystem)), category_(std::move(category)),
        identifier_(std::move(identifier)), enabled_(journalIsListening()) {}

  bool isEnabled(UnifiedLogType) const override { return enabled_; }

  void log(UnifiedLogType type, std::string_view line) override {
    sd_journal_send("MESSAGE=%.*s", static_cast<int>(line.size()), line.data(), "PRIORITY=%d",
                    journalPriority(type), "SYSLOG_IDENTIFIER=%s", identifier_.c_str(),
                    "TAVIX_SUBSYSTEM=%s", subsystem_.c_str(), "TAVIX_CATEGORY=%s",
                    category_.c_str(), nullptr);
  }

private:
  std::string subsystem_;
  std::string category_;
  std::string identifier_;
  bool enabled_;
};

class JournaldUnifiedLog final : public UnifiedLog {
public:
  std::unique_ptr<UnifiedLogHandle> makeHandle(std::string_view subsystem,
                                               std::string_view category) override {
    return std::make_unique<JournaldHandle>(std::string(subsystem), std::string(category),
                                            currentExecutableName());
  }
};

} // namespace

std::shared_ptr<UnifiedLog> makeSystemUnifiedLog() {
  return std::make_shared<JournaldUnifiedLog>();
}

} // namespace tavix
