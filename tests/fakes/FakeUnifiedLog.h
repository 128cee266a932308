#pragma once
// A unified log that remembers every line given to any of its handles.

#include "platform/UnifiedLog.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavix::test {

class FakeUnifiedLog : public UnifiedLog {
public:
  struct Entry {
    std::string subsystem;
    std::string category;
    UnifiedLogType type;
    std::string line;
  };

  std::unique_ptr<UnifiedLogHandle> makeHandle(std::string_view subsystem,
                                               std::string_view category) override {
    ++shared_->handlesMade;
    return std::make_unique<Handle>(shared_, std::string(subsystem), std::string(category));
  }

  // Whether handles report their types as enabled (all of them, or none).
  void setEnabled(bool enabled) { shared_->enabled = enabled; }
  int handlesMade() const { return shared_->handlesMade; }
  std::vector<Entry> entries() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->entries;
  }

private:
  // Handles may outlive the log that made them.
  struct Shared {
    std::mutex mutex;
    std::vector<Entry> entries;
    std::atomic<bool> enabled{true};
    std::atomic<int> handlesMade{0};
  };

  class Handle : public UnifiedLogHandle {
  public:
    Handle(std::shared_ptr<Shared> shared, std::string subsystem, std::string category)
        : shared_(std::move(shared)), subsystem_(std::move(subsystem)),
          category_(std::move(category)) {}
    bool isEnabled(UnifiedLogType) const override { return shared_->enabled; }
    void log(UnifiedLogType type, std::string_view line) override {
      std::lock_guard lock(shared_->mutex);
      shared_->entries.push_back({subsystem_, category_, type, std::string(line)});
    }

  private:
    std::shared_ptr<Shared> shared_;
    std::string subsystem_;
    std::string category_;
  };

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

} // namespace tavix::test
