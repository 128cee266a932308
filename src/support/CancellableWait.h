#pragma once
// Waiting a while unless the request of the calling thread is cancelled first, for the
// pauses between retries and polls.

#include <chrono>

namespace tavix {

// Waits `duration`; returns false, at once, when the current request is cancelled.
bool waitUnlessCancelled(std::chrono::steady_clock::duration duration);

} // namespace tavix
