#pragma once
// Runs blocking sends to the runtime app on a few threads of its own, never on the
// caller's, with a fixed number running at once and a bounded first-in-first-out list of
// waiting ones. A send that finds the list full fails at once, so a stalled runtime app
// cannot pile up threads or memory in the bridge.

#include "client/ClientFailure.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavix {

// Shared by a caller and its job: the caller marks it when it stops waiting, so that a
// job still in the list is dropped and one that starts late does not send.
class IPCSendTicket {
public:
  void markCancelled() {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
  }
  bool isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }

private:
  mutable std::mutex mutex_;
  bool cancelled_ = false;
};

class IPCBlockingSendExecutor {
public:
  struct Job {
    std::shared_ptr<IPCSendTicket> ticket;
    // The blocking work; it completes the caller itself.
    std::function<void()> run;
    // Completes the caller with an error instead of running.
    std::function<void(ClientFailure)> reject;
  };

  // `maxActive` below 1 counts as 1, `maxQueued` below 0 as 0.
  IPCBlockingSendExecutor(std::string label, int maxActive, int maxQueued);
  // Lets the running jobs finish, rejects none of the waiting ones (there are none once
  // every caller has been answered), and joins the threads.
  ~IPCBlockingSendExecutor();
  IPCBlockingSendExecutor(const IPCBlockingSendExecutor &) = delete;
  IPCBlockingSendExecutor &operator=(const IPCBlockingSendExecutor &) = delete;

  // The process-wide executors for requests and for cancellation requests, so that a
  // cancellation never waits behind the requests it cancels. Made on first use and never
  // destroyed: a thread blocked in a send must not hold up the process's exit.
  static IPCBlockingSendExecutor &requests();
  static IPCBlockingSendExecutor &cancellations();

  // Starts `job` now, or appends it to the waiting list, or rejects it: with a
  // cancellation when its ticket is already cancelled, with `rateLimited` when the list
  // is full.
  void enqueue(Job job);
  // Removes the waiting job with this ticket and rejects it with a cancellation; does
  // nothing when the job already runs or has finished.
  void cancelWaiting(const std::shared_ptr<IPCSendTicket> &ticket);

  // Waits until no job runs or waits, or `deadline` passes; returns whether none does.
  bool waitUntilIdle(std::chrono::steady_clock::time_point deadline) const;

  const std::string &label() const { return label_; }
  size_t activeCount() const;
  size_t waitingCount() const;

private:
  void work(std::stop_token stop);
  void finishOne();

  const std::string label_;
  const size_t maxActive_;
  const size_t maxQueued_;
  mutable std::mutex mutex_;
  std::condition_variable_any startable_;
  mutable std::condition_variable_any idle_;
  size_t active_ = 0;
  std::deque<Job> waiting_;
  // Jobs counted as active whose thread has not taken them yet.
  std::deque<Job> starting_;
  std::vector<std::jthread> threads_;
};

} // namespace tavix
