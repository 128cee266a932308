#include "support/WorkerPool.h"

namespace tavix {

WorkerPool::WorkerPool(size_t threads) {
  threads_.reserve(threads);
  for (size_t i = 0; i < threads; ++i)
    threads_.emplace_back([this] { work(); });
}

WorkerPool::~WorkerPool() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  available_.notify_all();
  for (auto &thread : threads_)
    thread.join();
}

void WorkerPool::post(std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  available_.notify_one();
}

void WorkerPool::work() {
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock lock(mutex_);
      available_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty())
        return; // stopping, and nothing left to run
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();
  }
}

} // namespace tavix
