#pragma once
// Tells the runtime app to abandon a request whose caller stopped waiting for it. The
// delivery is prepared with each event and started at most once; it never blocks the
// caller, and its failure is only logged.

#include <functional>
#include <mutex>

namespace tavix {

class IPCClientCancellationDelivery {
public:
  explicit IPCClientCancellationDelivery(std::function<void()> send) : send_(std::move(send)) {}

  // Starts the delivery the first time; later calls do nothing.
  void start() {
    {
      std::lock_guard lock(mutex_);
      if (started_)
        return;
      started_ = true;
    }
    send_();
  }

private:
  std::mutex mutex_;
  bool started_ = false;
  std::function<void()> send_;
};

} // namespace tavix
