#pragma once
// Hands finished work from worker threads to a thread that polls descriptors: a locked
// queue whose eventfd becomes readable when something waits in it.

#include "runtime/UniqueFd.h"

#include <cerrno>
#include <cstdint>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <sys/eventfd.h>
#include <vector>

namespace tavix::runtime {

template <typename T> class EventfdQueue {
public:
  EventfdQueue() : eventfd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!eventfd_)
      throw std::runtime_error("eventfd failed");
  }

  // The descriptor to poll for reading.
  int fd() const { return eventfd_.get(); }

  void push(T item) {
    {
      std::lock_guard lock(mutex_);
      items_.push_back(std::move(item));
    }
    const uint64_t one = 1;
    // The counter only has to become non-zero; a full counter is readable already.
    [[maybe_unused]] const auto written = ::write(eventfd_.get(), &one, sizeof one);
  }

  // Everything queued so far, oldest first; resets the descriptor's readiness.
  std::vector<T> drain() {
    uint64_t count = 0;
    [[maybe_unused]] const auto read = ::read(eventfd_.get(), &count, sizeof count);
    std::lock_guard lock(mutex_);
    std::vector<T> items(std::make_move_iterator(items_.begin()), std::make_move_iterator(items_.end()));
    items_.clear();
    return items;
  }

private:
  UniqueFd eventfd_;
  std::mutex mutex_;
  std::deque<T> items_;
};

} // namespace tavix::runtime
