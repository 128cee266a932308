// Which failures mean that a request got no answer in time.

#include "client/ClientFailure.h"

#include <gtest/gtest.h>

#include <string>

namespace tavix::test {
namespace {

TEST(ClientFailure, IsARequestTimeoutOnlyForTheRacesTimeOutAndATimedOutSend) {
  const struct {
    const char *name;
    ClientFailure failure;
    bool timedOut;
  } cases[] = {
      {"the race's time-out", ComputerUseIPCError::timeout, true},
      {"a send that timed out", ClientError::sendFailed(-1712, "ComputerUseIPCHealthRequest", 2), true},
      {"a send that timed out, no time-out given", ClientError::sendFailed(-1712, "ComputerUseIPCClickRequest", 0),
       true},
      {"a send that failed just below", ClientError::sendFailed(-1713, "ComputerUseIPCHealthRequest", 2), false},
      {"a send that failed just above", ClientError::sendFailed(-1711, "ComputerUseIPCHealthRequest", 2), false},
      {"a send with no handler", ClientError::sendFailed(-1708, "ComputerUseIPCHealthRequest", 2), false},
      {"a send that failed with no status", ClientError::sendFailed(0, "ComputerUseIPCHealthRequest", 2), false},
      {"a server error that reads like a time-out", ServerError{-1712, "timed out"}, false},
      {"a server error", ServerError{-1708, std::nullopt}, false},
      {"the race's cancellation", ComputerUseIPCError::cancelled, false},
      {"too many requests", ComputerUseIPCError::rateLimited, false},
      {"an unknown IPC error", ComputerUseIPCError::unknown, false},
      {"a task cancellation", CancellationError{}, false},
      {"a runtime that is not running", ClientError::runtimeNotRunning(), false},
      {"no authorization", ClientError::automationNotAuthorized("timed out"), false},
      {"an undecodable reply", ComputerUseClientError::decodingFailed("ComputerUseIPCHealthRequest", "-1712"), false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(isRequestTimeout(c.failure), c.timedOut);
  }
}

} // namespace
} // namespace tavix::test
