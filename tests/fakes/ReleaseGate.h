#pragma once
// Named pieces of work that record when they start and then wait until the test releases
// them or they are cancelled, so that tests can hold requests in flight.

#include <condition_variable>
#include <mutex>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

namespace tavix::test {

class ReleaseGate {
public:
  // Records the start and waits; returns whether the work was cancelled.
  bool pass(const std::string &name, const std::string &correlationID, std::stop_token stop) {
    std::unique_lock guard(lock_);
    started_.push_back(name);
    correlationIDs_.push_back(correlationID);
    changed_.notify_all();
    changed_.wait(guard, stop, [&] { return released_.contains(name); });
    const bool cancelled = stop.stop_requested();
    if (cancelled)
      cancelled_.push_back(name);
    finished_.push_back(name);
    changed_.notify_all();
    return cancelled;
  }

  void release(const std::string &name) {
    std::lock_guard guard(lock_);
    released_.insert(name);
    changed_.notify_all();
  }
  // Waits until `count` pieces have started / finished, and returns their names.
  std::vector<std::string> started(size_t count) { return waitFor(started_, count); }
  std::vector<std::string> finished(size_t count) { return waitFor(finished_, count); }
  std::vector<std::string> cancelled() { return snapshot(cancelled_); }
  std::vector<std::string> correlationIDs() { return snapshot(correlationIDs_); }

private:
  std::vector<std::string> waitFor(const std::vector<std::string> &list, size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return list.size() >= count; });
    return list;
  }
  std::vector<std::string> snapshot(const std::vector<std::string> &list) {
    std::lock_guard guard(lock_);
    return list;
  }

  std::mutex lock_;
  std::condition_variable_any changed_;
  std::set<std::string> released_;
  std::vector<std::string> started_, finished_, cancelled_, correlationIDs_;
};

} // namespace tavix::test
