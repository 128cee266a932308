#pragma once
// Tells a thread that polls descriptors that something happened, from any thread: an
// eventfd that becomes readable when raised and stays so until cleared. Raising it
// several times before it is cleared is one signal.

#include "runtime/UniqueFd.h"

#include <cstdint>
#include <stdexcept>
#include <sys/eventfd.h>
#include <unistd.h>

namespace tavix::runtime {

class EventfdSignal {
public:
  EventfdSignal() : eventfd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!eventfd_)
      throw std::runtime_error("eventfd failed");
  }

  // The descriptor to poll for reading.
  int fd() const { return eventfd_.get(); }

  void raise() {
    const uint64_t one = 1;
    // The counter only has to become non-zero; a full counter is readable already.
    [[maybe_unused]] const auto written = ::write(eventfd_.get(), &one, sizeof one);
  }

  // Whether it was raised since the last clear; it is not readable afterwards.
  bool clear() {
    uint64_t count = 0;
    return ::read(eventfd_.get(), &count, sizeof count) == static_cast<ssize_t>(sizeof count) && count > 0;
  }

private:
  UniqueFd eventfd_;
};

} // namespace tavix::runtime
