#pragma once
// Named pieces of work that record when they start and then wait until the test releases
// them or they are cancelled, so that tests can hold requests in flight. Every wait gives
// up after 10 s, so that a cancellation that never comes fails a test instead of hanging it.

#include <chrono>
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
    changed_.wait_for(guard, stop, patience, [&] { return released_.contains(name); });
    const bool cancelled = stop.stop_requested();
    if (cancelled)
      cancelled_.push_back(name);
    return cancelled;
  }
  void release(const std::string &name) { std::lock_guard guard(lock_); released_.insert(name); changed_.notify_all(); }
  // The names of the pieces started, once there are `count`; those cancelled; the
  // correlation ids they started with.
  std::vector<std::string> started(size_t count) { return list(started_, count); }
  std::vector<std::string> cancelled() { return list(cancelled_, 0); }
  std::vector<std::string> correlationIDs() { return list(correlationIDs_, 0); }

private:
  static constexpr std::chrono::seconds patience{10};

  std::vector<std::string> list(const std::vector<std::string> &names, size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, patience, [&] { return names.size() >= count; });
    return names;
  }

  std::mutex lock_;
  std::condition_variable_any changed_;
  std::set<std::string> released_;
  std::vector<std::string> started_, cancelled_, correlationIDs_;
};

} // namespace tavix::test
