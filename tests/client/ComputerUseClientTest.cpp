// The client facade over a scripted transport: what goes out for a request, what comes
// back, and the failures of a reply that is not the response or a request JSON cannot carry.

#include "client/ComputerUseClient.h"

#include "contracts/EventStreamContracts.h"
#include "fakes/ScriptedRequestTransport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tavix::test {
namespace {

struct Client {
  ScriptedRequestTransport *transport = new ScriptedRequestTransport();
  ComputerUseClient client{std::unique_ptr<ComputerUseRequestTransport>(transport)};
};

TEST(ComputerUseClient, SendsEachRequestAsItsTypeJSONAndTimeOutAndDecodesItsResponse) {
  Client c;
  c.transport->script("ComputerUseIPCEventStreamStartRequest",
                      {std::string(R"({"isRecording":true,"eventCount":2,"suppressedEventCount":0,)"
                                   R"("maxDurationSeconds":60,"screenshotMode":"window_changes","extra":1})")});
  c.transport->script("ComputerUseIPCHealthRequest",
                      {std::string(R"({"generationID":"g1","runtimePID":42,"bundleIdentifier":"b","bundlePath":"/r",)"
                                   R"("isHealthy":true})")});
  ComputerUseIPCEventStreamStartRequest start;
  start.maxDurationSeconds = 60;
  const auto status = c.client.send(start, 7.5);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(status->isRecording);
  EXPECT_EQ(status->eventCount, 2);
  EXPECT_EQ(status->screenshotMode, ComputerUseIPCEventStreamScreenshotMode::windowChanges);
  // The heartbeat: a health request that keeps the client active, within two seconds.
  EXPECT_EQ(c.client.sendHeartbeat().value().runtimePID, 42);
  const auto sent = c.transport->sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].requestType, "ComputerUseIPCEventStreamStartRequest");
  EXPECT_EQ(sent[0].body, R"({"maxDurationSeconds":60})");
  EXPECT_EQ(sent[0].timeoutSeconds, 7.5);
  EXPECT_EQ(sent[1].requestType, "ComputerUseIPCHealthRequest");
  EXPECT_EQ(sent[1].body, R"({"refreshClientActivity":true})");
  EXPECT_EQ(sent[1].timeoutSeconds, 2.0);
}

TEST(ComputerUseClient, RepliesThatAreNotTheResponseFailWithDecodingFailedAndTransportErrorsPassThrough) {
  const std::string prefix = "Response decoding failed for ComputerUseIPCHealthRequest: ";
  const struct {
    ClientResult<std::string> reply;
    std::string text;
  } cases[] = {
      {std::string("not json"), prefix + "The given data was not valid JSON."},
      {std::string(""), prefix + "The given data was not valid JSON."},
      {std::string("[]"), prefix + "Expected an object for ComputerUseIPCHealthResponse"},
      {std::string(R"({"runtimePID":1})"), prefix + "Missing required key \"generationID\""},
      {std::string(R"({"generationID":"g","runtimePID":2147483648,"bundleIdentifier":"b","bundlePath":"p",)"
                   R"("isHealthy":true})"),
       prefix + "Expected an integer in range for \"runtimePID\""},
      {tl::unexpected(ClientFailure(ServerError{-1708, "not ready"})), "Server error -1708: not ready"},
      {tl::unexpected(ClientFailure(CancellationError{})), "The request was cancelled."},
  };
  for (const auto &row : cases) {
    SCOPED_TRACE(row.text);
    Client c;
    c.transport->scriptDefault(row.reply);
    const auto health = c.client.send(ComputerUseIPCHealthRequest{});
    ASSERT_FALSE(health.has_value());
    EXPECT_EQ(describe(health.error()), row.text);
    if (!row.reply)
      EXPECT_EQ(health.error(), row.reply.error());
  }
}

TEST(ComputerUseClient, ARequestThatJSONCannotCarryIsNeverSent) {
  for (const double bad : {std::numeric_limits<double>::infinity(), std::nan("")}) {
    Client c;
    ComputerUseIPCAppPerformActionRequest request;
    request.app = "Notes";
    request.action = {DragParams{bad, 0, 1, 1}};
    const auto result = c.client.send(request);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(describe(result.error()),
              "Request encoding failed for ComputerUseIPCAppPerformActionRequest: it holds a number that JSON "
              "cannot carry or text that is not UTF-8");
    EXPECT_TRUE(c.transport->sent().empty());
  }
}

} // namespace
} // namespace tavix::test
