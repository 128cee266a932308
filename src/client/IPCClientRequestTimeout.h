#pragma once
// Waits for one blocking send on an executor, racing it against a time-out and against
// the cancellation of the calling request. The caller goes on with whichever comes
// first; a send that finishes after the race was decided has its result dropped.

#include "client/ClientFailure.h"
#include "client/IPCBlockingSendExecutor.h"

#include <functional>
#include <string>
#include <string_view>

namespace tavix {

class IPCClientRequestTimeout {
public:
  // The blocking work; it sees the ticket so that it can give up before it sends when
  // the caller has stopped waiting.
  using Operation = std::function<ClientResult<std::string>(const IPCSendTicket &ticket)>;

  struct Hooks {
    // Called once when the time-out wins.
    std::function<void()> onTimeout;
    // Called once when the caller's cancellation wins after the operation had started
    // (a send still in the waiting list never reached the runtime app).
    std::function<void()> onCancelledWhileRunning;
  };

  // Runs `operation` on `executor` and returns its result, unless `seconds` pass first
  // (`ComputerUseIPCError::timeout`, logged as "request_timeout") or the request of the
  // calling thread is cancelled first (`ComputerUseIPCError::cancelled`, logged as
  // "request_cancelled"). A rejection by the executor is returned as it is.
  static ClientResult<std::string> withTimeout(IPCBlockingSendExecutor &executor, double seconds,
                                               std::string_view requestType, Hooks hooks,
                                               Operation operation);
};

} // namespace tavix
