// Every failure a request can end in: its text, the failure a tool reports for it, how it
// is logged, and whether it means that the request got no answer in time.

#include "client/ClientFailure.h"

#include <gtest/gtest.h>

#include <string>

namespace tavix::test {
namespace {

TEST(ClientFailure, TextsReportedFailuresLogErrorsAndTimeOuts) {
  const auto unknown = ComputerUseFailure::unknownError();
  const std::string client = "ClientError(domain=tavix.client,code=", timedOut = "Apple Event send timed out after ";
  const struct {
    ClientFailure failure;
    std::string text;
    ComputerUseFailure reported;
    std::string logged;
    bool isTimeout = false;
  } cases[] = {
      {ClientError::runtimeLaunchFailed("no such file"), "Failed to launch TavixComputerUseRuntime: no such file",
       unknown, client + "0)"},
      {ClientError::sendFailed(-1712, "ComputerUseIPCHealthRequest", 2.5),
       timedOut + "2.5s for ComputerUseIPCHealthRequest; TavixComputerUseRuntime did not reply", unknown,
       client + "-1712)", true},
      {ClientError::sendFailed(-1712, "ComputerUseIPCClickRequest", 0),
       timedOut + "0.0s for ComputerUseIPCClickRequest; TavixComputerUseRuntime did not reply", unknown,
       client + "-1712)", true},
      {ClientError::sendFailed(-1713, "ComputerUseIPCHealthRequest", 2),
       "Apple Event send failed for ComputerUseIPCHealthRequest with status: -1713", unknown, client + "-1713)"},
      {ClientError::sendFailed(-1711, "ComputerUseIPCHealthRequest", 2),
       "Apple Event send failed for ComputerUseIPCHealthRequest with status: -1711", unknown, client + "-1711)"},
      {ClientError::sendFailed(0, "ComputerUseIPCHealthRequest", 2),
       "Apple Event send failed for ComputerUseIPCHealthRequest with status: 0", unknown, client + "0)"},
      {ClientError::automationNotAuthorized("timed out"), "timed out", unknown, client + "2)"},
      {ClientError::decodingFailed("bad"), "Response decoding failed: bad", unknown, client + "3)"},
      {ClientError::runtimeNotRunning(), "TavixComputerUseRuntime is not running", unknown, client + "4)"},
      {ClientError::failedToBuildEvent(), "Failed to build Apple Event descriptor", unknown, client + "5)"},
      {ClientError::invalidResponse(), "Invalid response from runtime", unknown, client + "6)"},
      {ServerError{-1712, "timed out"}, "Server error -1712: timed out", unknown,
       "ServerError(domain=tavix.runtime,code=-1712)"},
      {ServerError{-1708, std::nullopt}, "Server error -1708", unknown, "ServerError(domain=tavix.runtime,code=-1708)"},
      {ServerError{0, ""}, "Server error 0: ", unknown, "ServerError(domain=tavix.runtime,code=0)"},
      {ComputerUseIPCError::rateLimited,
       "Runtime IPC error rateLimited (-10016): too many requests to the runtime app are in flight; retry shortly",
       {ComputerUseFailure::Kind::rateLimited, {}, {}, -10016}, "ComputerUseIPCError(domain=tavix.ipc,code=-10016)"},
      {ComputerUseIPCError::timeout, "Runtime IPC error timeout (-10011)",
       {ComputerUseFailure::Kind::timeout, {}, {}, -10011}, "ComputerUseIPCError(domain=tavix.ipc,code=-10011)", true},
      {ComputerUseIPCError::cancelled, "Runtime IPC error cancelled (-10012)",
       {ComputerUseFailure::Kind::cancelled, {}, {}, -10012}, "ComputerUseIPCError(domain=tavix.ipc,code=-10012)"},
      {ComputerUseIPCError::urlBlocklist, "Runtime IPC error urlBlocklist (-10015)",
       {ComputerUseFailure::Kind::blockedURL, {}, {}, -10015}, "ComputerUseIPCError(domain=tavix.ipc,code=-10015)"},
      {ComputerUseClientError::decodingFailed("ComputerUseIPCListAppsRequest", "-1712"),
       "Response decoding failed for ComputerUseIPCListAppsRequest: -1712", unknown,
       "ComputerUseClientError(domain=tavix.client,code=0)"},
      {CancellationError{}, "The request was cancelled.", ComputerUseFailure::cancelled(),
       "CancellationError(domain=tavix.task,code=0)"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(describe(c.failure), c.text);
    EXPECT_EQ(failureFrom(c.failure), c.reported);
    const LogError logged = logError(c.failure);
    EXPECT_EQ(logged.typeName + "(domain=" + logged.domain + ",code=" + std::to_string(logged.code) + ")", c.logged);
    EXPECT_EQ(isRequestTimeout(c.failure), c.isTimeout);
  }
}

TEST(ClientFailure, SecondsAreWrittenInTheirShortestForm) {
  const std::pair<double, const char *> cases[] = {{120, "120.0"}, {220, "220.0"}, {2, "2.0"},     {0, "0.0"},
                                                   {0.5, "0.5"},   {2.25, "2.25"},  {0.1, "0.1"}, {1e20, "1e+20"},
                                                   {-1, "-1.0"}};
  for (const auto &[seconds, text] : cases)
    EXPECT_EQ(secondsText(seconds), text) << seconds;
}

} // namespace
} // namespace tavix::test
