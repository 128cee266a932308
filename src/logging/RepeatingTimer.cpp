#include "logging/RepeatingTimer.h"

namespace tavix {

RepeatingTimer::RepeatingTimer(std::chrono::steady_clock::duration interval,
                               std::function<void()> job)
    : interval_(interval), job_(std::move(job)),
      thread_([this](std::stop_token stop) { run(stop); }) {}

RepeatingTimer::~RepeatingTimer() {
  thread_.request_stop();
  thread_.join();
}

void RepeatingTimer::run(std::stop_token stop) {
  // Due times follow from the start, not from when each job ended, so that the
  // interval does not drift by the jobs' own durations.
  auto due = std::chrono::steady_clock::now() + interval_;
  while (true) {
    {
      std::unique_lock lock(mutex_);
      if (wakeUp_.wait_until(lock, stop, due, [] { return false; }) || stop.stop_requested())
        return;
    }
    job_();
    due += interval_;
    const auto now = std::chrono::steady_clock::now();
    if (due < now) // a job that overran: skip the firings it missed
      due = now + interval_;
  }
}

} // namespace tavix
