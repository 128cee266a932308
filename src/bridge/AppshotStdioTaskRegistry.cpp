#include "bridge/AppshotStdioTaskRegistry.h"

namespace tavix {

std::stop_token AppshotStdioTaskRegistry::registerTask(const std::string &id) {
  std::lock_guard guard(lock_);
  return tasks_[id].get_token();
}

void AppshotStdioTaskRegistry::remove(const std::string &id) {
  bool idle = false;
  {
    std::lock_guard guard(lock_);
    tasks_.erase(id);
    idle = tasks_.empty();
  }
  if (idle)
    idle_.notify_all();
}

bool AppshotStdioTaskRegistry::hasActive() const {
  std::lock_guard guard(lock_);
  return !tasks_.empty();
}

bool AppshotStdioTaskRegistry::waitUntilIdle(std::chrono::steady_clock::time_point deadline) const {
  std::unique_lock guard(lock_);
  return idle_.wait_until(guard, deadline, [this] { return tasks_.empty(); });
}

void AppshotStdioTaskRegistry::cancelAll() {
  std::map<std::string, std::stop_source> running;
  {
    std::lock_guard guard(lock_);
    running = tasks_;
  }
  // Outside the lock: a stop callback runs here and may itself finish its task.
  for (auto &entry : running)
    entry.second.request_stop();
}

} // namespace tavix
