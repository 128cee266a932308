#include "client/IPCBlockingSendExecutor.h"

#include <algorithm>

namespace tavix {

IPCBlockingSendExecutor::IPCBlockingSendExecutor(std::string label, int maxActive, int maxQueued)
    : label_(std::move(label)), maxActive_(static_cast<size_t>(std::max(maxActive, 1))),
      maxQueued_(static_cast<size_t>(std::max(maxQueued, 0))) {
  threads_.reserve(maxActive_);
  for (size_t i = 0; i < maxActive_; ++i)
    threads_.emplace_back([this](std::stop_token stop) { work(stop); });
}

IPCBlockingSendExecutor::~IPCBlockingSendExecutor() {
  for (auto &thread : threads_)
    thread.request_stop();
  threads_.clear(); // joins
}

IPCBlockingSendExecutor &IPCBlockingSendExecutor::requests() {
  static auto *executor = new IPCBlockingSendExecutor("com.tavix.computeruse.ipc.send", 2, 8);
  return *executor;
}

IPCBlockingSendExecutor &IPCBlockingSendExecutor::cancellations() {
  static auto *executor = new IPCBlockingSendExecutor("com.tavix.computeruse.ipc.cancel", 2, 8);
  return *executor;
}

void IPCBlockingSendExecutor::enqueue(Job job) {
  std::unique_lock lock(mutex_);
  // The ticket's lock is taken inside the executor's, never the other way round.
  if (job.ticket->isCancelled()) {
    lock.unlock();
    job.reject(CancellationError{});
    return;
  }
  if (active_ < maxActive_) {
    ++active_;
    starting_.push_back(std::move(job));
    lock.unlock();
    startable_.notify_one();
    return;
  }
  if (waiting_.size() >= maxQueued_) {
    lock.unlock();
    job.reject(ComputerUseIPCError::rateLimited);
    return;
  }
  waiting_.push_back(std::move(job));
}

void IPCBlockingSendExecutor::cancelWaiting(const std::shared_ptr<IPCSendTicket> &ticket) {
  std::unique_lock lock(mutex_);
  auto found = std::find_if(waiting_.begin(), waiting_.end(),
                            [&](const Job &job) { return job.ticket == ticket; });
  if (found == waiting_.end())
    return;
  Job job = std::move(*found);
  waiting_.erase(found);
  lock.unlock();
  job.reject(CancellationError{});
}

size_t IPCBlockingSendExecutor::activeCount() const {
  std::lock_guard lock(mutex_);
  return active_;
}

size_t IPCBlockingSendExecutor::waitingCount() const {
  std::lock_guard lock(mutex_);
  return waiting_.size();
}

bool IPCBlockingSendExecutor::waitUntilIdle(std::chrono::steady_clock::time_point deadline) const {
  std::unique_lock lock(mutex_);
  return idle_.wait_until(lock, deadline, [&] { return active_ == 0 && waiting_.empty(); });
}

void IPCBlockingSendExecutor::work(std::stop_token stop) {
  while (true) {
    std::unique_lock lock(mutex_);
    if (!startable_.wait(lock, stop, [&] { return !starting_.empty(); }))
      return;
    Job job = std::move(starting_.front());
    starting_.pop_front();
    lock.unlock();
    job.run();
    finishOne();
  }
}

// The longest-waiting job takes the finished one's place; the active count stays.
void IPCBlockingSendExecutor::finishOne() {
  std::unique_lock lock(mutex_);
  if (waiting_.empty()) {
    if (--active_ == 0) {
      lock.unlock();
      idle_.notify_all();
    }
    return;
  }
  starting_.push_back(std::move(waiting_.front()));
  waiting_.pop_front();
  lock.unlock();
  startable_.notify_one();
}

} // namespace tavix
