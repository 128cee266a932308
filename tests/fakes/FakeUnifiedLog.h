#pragma once
// A unified log that remembers every line given to any of its handles. Made with
// std::make_shared: each handle keeps the log alive, since handles may outlive it.

#include "platform/UnifiedLog.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavix::test {

class FakeUnifiedLog : public UnifiedLog, public std::enable_shared_from_this<FakeUnifiedLog> {
public:
  struct Entry {
    std::string subsystem, category;
    UnifiedLogType type;
    std::string line;
  };

  std::unique_ptr<UnifiedLogHandle> makeHandle(std::string_view subsystem, std::string_view category) override {
    ++handlesMade_;
    return std::make_unique<Handle>(shared_from_this(), Entry{std::string(subsystem), std::string(category), {}, {}});
  }
  // Whether handles report their types as enabled (all of them, or none).
  void setEnabled(bool enabled) { enabled_ = enabled; }
  int handlesMade() const { return handlesMade_; }
  std::vector<Entry> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }

private:
  struct Handle : UnifiedLogHandle {
    Handle(std::shared_ptr<FakeUnifiedLog> owner, Entry name) : owner(owner), name(name) {}
    bool isEnabled(UnifiedLogType) const override { return owner->enabled_; }
    void log(UnifiedLogType type, std::string_view line) override {
      std::lock_guard lock(owner->mutex_);
      owner->entries_.push_back({name.subsystem, name.category, type, std::string(line)});
    }
    std::shared_ptr<FakeUnifiedLog> owner;
    Entry name;
  };

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  std::atomic<bool> enabled_{true};
  std::atomic<int> handlesMade_{0};
};

} // namespace tavix::test
