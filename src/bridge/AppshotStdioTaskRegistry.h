#pragma once
// The request lines being handled in the appshot mode, each under its own id, so that
// the end of input can wait for them and then cancel whatever still runs.

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stop_token>
#include <string>

namespace tavix {

class AppshotStdioTaskRegistry {
public:
  // Registers a task about to start under `id`; the token is its cancellation.
  std::stop_token registerTask(const std::string &id);
  // The task under `id` has finished.
  void remove(const std::string &id);

  bool hasActive() const;
  // Waits until no task is registered or `deadline` passes; returns whether none is.
  bool waitUntilIdle(std::chrono::steady_clock::time_point deadline) const;
  // Cancels every registered task; each still removes itself when it ends.
  void cancelAll();

private:
  mutable std::mutex lock_;
  mutable std::condition_variable idle_;
  std::map<std::string, std::stop_source> tasks_; // keyed by id: the ids active are its keys
};

} // namespace tavix
