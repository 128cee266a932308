#include "support/CancellableWait.h"

#include "support/RequestContext.h"

#include <condition_variable>
#include <mutex>

namespace tavix {

bool waitUnlessCancelled(std::chrono::steady_clock::duration duration) {
  const auto context = RequestContext::current();
  std::stop_token cancellation = context->cancellation();
  std::mutex mutex;
  std::condition_variable_any wake;
  std::unique_lock lock(mutex);
  // Nothing notifies `wake`: only the deadline or the stop request end the wait.
  wake.wait_for(lock, cancellation, duration, [] { return false; });
  return !cancellation.stop_requested();
}

} // namespace tavix
