#pragma once
// Lets the bus thread end a request a worker is waiting on: the worker waits through the
// cancellation instead of sleeping, and a cancel wakes it at once.

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tavix::runtime {

class Cancellation {
public:
  void cancel() {
    {
      std::lock_guard lock(mutex_);
      cancelled_ = true;
    }
    changed_.notify_all();
  }

  bool isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }

  // Waits `delay` unless cancelled first; true when the whole delay passed.
  bool waitFor(std::chrono::milliseconds delay) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, delay, [this] { return cancelled_; });
  }

private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool cancelled_ = false;
};

} // namespace tavix::runtime
