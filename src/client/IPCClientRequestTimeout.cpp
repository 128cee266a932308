#include "client/IPCClientRequestTimeout.h"

#include "logging/Logger.h"
#include "support/RequestContext.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace tavix {
namespace {

// Decided once: the first outcome wins and later ones are dropped.
struct RaceState {
  std::mutex mutex;
  std::condition_variable_any decided;
  std::optional<ClientResult<std::string>> result;
  bool started = false;

  bool resolve(ClientResult<std::string> outcome) {
    {
      std::lock_guard lock(mutex);
      if (result)
        return false;
      result = std::move(outcome);
    }
    decided.notify_all();
    return true;
  }
};

std::chrono::steady_clock::time_point deadlineAfter(double seconds) {
  const auto now = std::chrono::steady_clock::now();
  if (!(seconds < 1e9)) // also NaN: no deadline within the life of the process
    return std::chrono::steady_clock::time_point::max();
  return now + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                   std::chrono::duration<double>(std::max(seconds, 0.0)));
}

} // namespace

ClientResult<std::string> IPCClientRequestTimeout::withTimeout(IPCBlockingSendExecutor &executor,
                                                               double seconds, std::string_view requestType,
                                                               Hooks hooks, Operation operation) {
  auto state = std::make_shared<RaceState>();
  auto ticket = std::make_shared<IPCSendTicket>();
  const auto context = RequestContext::current();

  IPCBlockingSendExecutor::Job job;
  job.ticket = ticket;
  job.run = [state, ticket, context, operation = std::move(operation)] {
    WithRequestContext scope(context);
    {
      std::lock_guard lock(state->mutex);
      state->started = true;
    }
    state->resolve(operation(*ticket));
  };
  job.reject = [state](ClientFailure failure) { state->resolve(tl::unexpected(std::move(failure))); };
  executor.enqueue(std::move(job));

  const auto deadline = deadlineAfter(seconds);
  std::stop_token cancellation = context->cancellation();
  std::unique_lock lock(state->mutex);
  state->decided.wait_until(lock, cancellation, deadline, [&] { return state->result.has_value(); });
  if (state->result)
    return std::move(*state->result);

  // The race is decided here, under the lock, so a late result of the send is dropped.
  const bool cancelled = cancellation.stop_requested();
  const bool started = state->started;
  state->result = tl::unexpected(ClientFailure(cancelled ? ComputerUseIPCError::cancelled
                                                         : ComputerUseIPCError::timeout));
  ClientResult<std::string> outcome = *state->result;
  // Marked before the lock is let go: a job that starts from here on sees the mark and
  // sends nothing, and one that started before was seen as started above.
  ticket->markCancelled();
  lock.unlock();
  executor.cancelWaiting(ticket);
  if (cancelled) {
    Log::info(LogCategory::ipc, "request_cancelled", {{"requestType", requestType}});
    if (started && hooks.onCancelledWhileRunning)
      hooks.onCancelledWhileRunning();
  } else {
    Log::error(LogCategory::ipc, "request_timeout",
               {{"requestType", requestType}, {"timeoutMs", static_cast<int64_t>(std::llround(seconds * 1000))}});
    if (hooks.onTimeout)
      hooks.onTimeout();
  }
  return outcome;
}

} // namespace tavix
