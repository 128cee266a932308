#pragma once
// A fixed set of threads that run posted jobs in order of posting, so that slow work
// never holds up the thread that posts it, nor one another.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tavix {

class WorkerPool {
public:
  explicit WorkerPool(size_t threads);
  // Runs the jobs already posted, then joins the threads.
  ~WorkerPool();
  WorkerPool(const WorkerPool &) = delete;
  WorkerPool &operator=(const WorkerPool &) = delete;

  void post(std::function<void()> job);

private:
  void work();

  std::mutex mutex_;
  std::condition_variable available_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

} // namespace tavix
