#pragma once
// Runs a job at a fixed interval on a thread of its own, first one interval after it is
// made, until it is destroyed.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace tavix {

class RepeatingTimer {
public:
  RepeatingTimer(std::chrono::steady_clock::duration interval, std::function<void()> job);
  ~RepeatingTimer(); // stops and waits for a running job to finish
  RepeatingTimer(const RepeatingTimer &) = delete;
  RepeatingTimer &operator=(const RepeatingTimer &) = delete;

private:
  void run(std::stop_token stop);

  std::chrono::steady_clock::duration interval_;
  std::function<void()> job_;
  std::mutex mutex_;
  std::condition_variable_any wakeUp_;
  std::jthread thread_; // last: starts once everything it uses exists
};

} // namespace tavix
