#pragma once
// A few threads that run posted jobs, so that slow requests (a scripted delay, a large
// screenshot) never hold up the bus thread or one another.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tavix::runtime {

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

} // namespace tavix::runtime
