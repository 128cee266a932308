// The client facade over a scripted transport: what goes out for a request, what comes
// back, and the texts of every error a request can end in.

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

const std::string healthReply =
    R"({"generationID":"g1","runtimePID":42,"bundleIdentifier":"com.tavix.computeruse","bundlePath":"/opt/r","isHealthy":true})";

TEST(ComputerUseClient, SendsTheRequestsTypeAndJSONAndDecodesItsResponse) {
  Client c;
  c.transport->scriptDefault(std::string(R"({"isRecording":true,"eventCount":2,"suppressedEventCount":0,)"
                                         R"("maxDurationSeconds":60,"screenshotMode":"window_changes","extra":1})"));
  ComputerUseIPCEventStreamStartRequest start;
  start.maxDurationSeconds = 60;
  const auto status = c.client.send(start, 7.5);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(status->isRecording);
  EXPECT_EQ(status->eventCount, 2);
  EXPECT_EQ(status->screenshotMode, ComputerUseIPCEventStreamScreenshotMode::windowChanges);
  const auto sent = c.transport->sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].requestType, "ComputerUseIPCEventStreamStartRequest");
  EXPECT_EQ(sent[0].body, R"({"maxDurationSeconds":60})");
  EXPECT_EQ(sent[0].timeoutSeconds, 7.5);
}

TEST(ComputerUseClient, TheHeartbeatIsAHealthRequestWithATwoSecondTimeout) {
  Client c;
  c.transport->scriptDefault(healthReply);
  const auto health = c.client.sendHeartbeat();
  ASSERT_TRUE(health.has_value());
  EXPECT_EQ(health->runtimePID, 42);
  const auto sent = c.transport->sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].requestType, "ComputerUseIPCHealthRequest");
  EXPECT_EQ(sent[0].body, R"({"refreshClientActivity":true})");
  EXPECT_EQ(sent[0].timeoutSeconds, 2.0);
}

TEST(ComputerUseClient, RepliesThatAreNotTheResponseFailWithDecodingFailed) {
  const struct {
    std::string reply;
    std::string text;
  } cases[] = {
      {"not json", "Response decoding failed for ComputerUseIPCHealthRequest: The given data was not valid JSON."},
      {"", "Response decoding failed for ComputerUseIPCHealthRequest: The given data was not valid JSON."},
      {"[]", "Response decoding failed for ComputerUseIPCHealthRequest: Expected an object for ComputerUseIPCHealthResponse"},
      {R"({"runtimePID":1})", "Response decoding failed for ComputerUseIPCHealthRequest: Missing required key \"generationID\""},
      {R"({"generationID":"g","runtimePID":2147483648,"bundleIdentifier":"b","bundlePath":"p","isHealthy":true})",
       "Response decoding failed for ComputerUseIPCHealthRequest: Expected an integer in range for \"runtimePID\""},
  };
  for (const auto &row : cases) {
    SCOPED_TRACE(row.reply);
    Client c;
    c.transport->scriptDefault(row.reply);
    const auto health = c.client.send(ComputerUseIPCHealthRequest{});
    ASSERT_FALSE(health.has_value());
    EXPECT_EQ(describe(health.error()), row.text);
    EXPECT_EQ(failureFrom(health.error()), ComputerUseFailure::unknownError());
  }
}

TEST(ComputerUseClient, TransportErrorsPassThroughUnchanged) {
  const ClientFailure errors[] = {
      ClientError::runtimeNotRunning(), ServerError{-1708, "not ready"}, ComputerUseIPCError::rateLimited,
      CancellationError{}, ClientError::sendFailed(-1712, "ComputerUseIPCListAppsRequest", 120)};
  for (const auto &error : errors) {
    Client c;
    c.transport->scriptDefault(tl::unexpected(error));
    const auto result = c.client.send(ComputerUseIPCListAppsRequest{});
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), error);
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

// A transport that says nothing about its connection.
class SilentTransport final : public ComputerUseRequestTransport {
public:
  std::string_view transportName() const override { return "silent"; }
  ClientResult<std::string> send(std::string_view, std::string, std::optional<double>) override {
    return tl::unexpected(ClientFailure(ClientError::invalidResponse()));
  }
};

TEST(ComputerUseClient, ConnectionStateAndNameComeFromTheTransport) {
  ComputerUseClient silent(std::make_unique<SilentTransport>());
  EXPECT_FALSE(silent.hasEstablishedConnection());
  EXPECT_EQ(silent.transportName(), "silent");
  Client c;
  EXPECT_FALSE(c.client.hasEstablishedConnection());
  c.transport->setEstablished(true);
  EXPECT_TRUE(c.client.hasEstablishedConnection());
}

TEST(ClientFailure, TextsAndFailures) {
  const struct {
    ClientFailure failure;
    std::string text;
    ComputerUseFailure reported;
    std::string logged;
  } cases[] = {
      {ClientError::runtimeLaunchFailed("no such file"), "Failed to launch TavixComputerUseRuntime: no such file",
       ComputerUseFailure::unknownError(), "ClientError(domain=tavix.client,code=0)"},
      {ClientError::sendFailed(-1712, "ComputerUseIPCAppGetStateRequest", 120),
       "Apple Event send timed out after 120.0s for ComputerUseIPCAppGetStateRequest; TavixComputerUseRuntime did not reply",
       ComputerUseFailure::unknownError(), "ClientError(domain=tavix.client,code=-1712)"},
      {ClientError::sendFailed(-1712, "ComputerUseIPCHealthRequest", 2.5),
       "Apple Event send timed out after 2.5s for ComputerUseIPCHealthRequest; TavixComputerUseRuntime did not reply",
       ComputerUseFailure::unknownError(), "ClientError(domain=tavix.client,code=-1712)"},
      {ClientError::sendFailed(-600, "ComputerUseIPCHealthRequest", 2),
       "Apple Event send failed for ComputerUseIPCHealthRequest with status: -600", ComputerUseFailure::unknownError(),
       "ClientError(domain=tavix.client,code=-600)"},
      {ClientError::automationNotAuthorized("Allow it.\n\nThen retry."), "Allow it.\n\nThen retry.",
       ComputerUseFailure::unknownError(), "ClientError(domain=tavix.client,code=2)"},
      {ClientError::decodingFailed("bad"), "Response decoding failed: bad", ComputerUseFailure::unknownError(),
       "ClientError(domain=tavix.client,code=3)"},
      {ClientError::runtimeNotRunning(), "TavixComputerUseRuntime is not running", ComputerUseFailure::unknownError(),
       "ClientError(domain=tavix.client,code=4)"},
      {ClientError::failedToBuildEvent(), "Failed to build Apple Event descriptor", ComputerUseFailure::unknownError(),
       "ClientError(domain=tavix.client,code=5)"},
      {ClientError::invalidResponse(), "Invalid response from runtime", ComputerUseFailure::unknownError(),
       "ClientError(domain=tavix.client,code=6)"},
      {ServerError{5, "boom"}, "Server error 5: boom", ComputerUseFailure::unknownError(),
       "ServerError(domain=tavix.runtime,code=5)"},
      {ServerError{-1708, std::nullopt}, "Server error -1708", ComputerUseFailure::unknownError(),
       "ServerError(domain=tavix.runtime,code=-1708)"},
      {ServerError{0, ""}, "Server error 0: ", ComputerUseFailure::unknownError(), "ServerError(domain=tavix.runtime,code=0)"},
      {ComputerUseIPCError::rateLimited,
       "Runtime IPC error rateLimited (-10016): too many requests to the runtime app are in flight; retry shortly",
       {ComputerUseFailure::Kind::rateLimited, {}, {}, -10016}, "ComputerUseIPCError(domain=tavix.ipc,code=-10016)"},
      {ComputerUseIPCError::timeout, "Runtime IPC error timeout (-10011)",
       {ComputerUseFailure::Kind::timeout, {}, {}, -10011}, "ComputerUseIPCError(domain=tavix.ipc,code=-10011)"},
      {ComputerUseIPCError::urlBlocklist, "Runtime IPC error urlBlocklist (-10015)",
       {ComputerUseFailure::Kind::blockedURL, {}, {}, -10015}, "ComputerUseIPCError(domain=tavix.ipc,code=-10015)"},
      {ComputerUseClientError::decodingFailed("ComputerUseIPCListAppsRequest", "Missing required key \"content\""),
       "Response decoding failed for ComputerUseIPCListAppsRequest: Missing required key \"content\"",
       ComputerUseFailure::unknownError(), "ComputerUseClientError(domain=tavix.client,code=0)"},
      {CancellationError{}, "The request was cancelled.", ComputerUseFailure::cancelled(),
       "CancellationError(domain=tavix.task,code=0)"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(describe(c.failure), c.text);
    EXPECT_EQ(failureFrom(c.failure), c.reported);
    const LogError logged = logError(c.failure);
    EXPECT_EQ(logged.typeName + "(domain=" + logged.domain + ",code=" + std::to_string(logged.code) + ")", c.logged);
  }
}

TEST(ClientFailure, SecondsAreWrittenInTheirShortestForm) {
  const std::pair<double, const char *> cases[] = {
      {120, "120.0"}, {220, "220.0"}, {2, "2.0"}, {0, "0.0"}, {0.5, "0.5"}, {2.25, "2.25"},
      {0.1, "0.1"},   {1e20, "1e+20"}, {-1, "-1.0"}};
  for (const auto &[seconds, text] : cases)
    EXPECT_EQ(secondsText(seconds), text) << seconds;
}

} // namespace
} // namespace tavix::test
