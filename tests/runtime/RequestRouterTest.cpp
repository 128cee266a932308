// Routing requests by type: every request type reaches the desktop and answers JSON its
// response record decodes; an unknown type, a body that is not JSON and a body that is not
// the record answer the runtime errors a client can tell apart; a desktop's own error
// passes through; a next-update never waits here.

#include "runtime/RequestRouter.h"
#include "runtime/VirtualDesktop.h"
#include "support/JSON.h"

#include <gtest/gtest.h>

#include <functional>

namespace tavix::test {
namespace {

using namespace runtime;

// Decodes a reply with the response record of the request type.
template <typename Request> std::function<bool(const std::string &)> decodesAs() {
  return [](const std::string &bytes) {
    const auto json = parseJSON(bytes);
    return json && Request::Response::fromJSON(*json).has_value();
  };
}

class RequestRouterTest : public testing::Test {
protected:
  VirtualDesktop desktop{VirtualDesktopOptions{}};
  RequestRouter router{desktop};
};

TEST_F(RequestRouterTest, EveryRequestTypeAnswersItsResponse) {
  struct Row {
    std::string_view type;
    std::string body;
    std::function<bool(const std::string &)> decodes;
  };
  const Row rows[] = {
      {ComputerUseIPCHealthRequest::requestType, R"({"refreshClientActivity":true})",
       decodesAs<ComputerUseIPCHealthRequest>()},
      {ComputerUseIPCListAppsRequest::requestType, "{}", decodesAs<ComputerUseIPCListAppsRequest>()},
      {ComputerUseIPCAppGetStateRequest::requestType, R"({"app":"Notes"})", decodesAs<ComputerUseIPCAppGetStateRequest>()},
      {ComputerUseIPCAppPerformActionRequest::requestType,
       R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":3,"clickCount":1,"mouseButton":0}}}})",
       decodesAs<ComputerUseIPCAppPerformActionRequest>()},
      {ComputerUseIPCAppExecuteActionRequest::requestType,
       R"({"app":"Notes","action":{"pressKey":{"_0":{"key":"Return"}}}})",
       decodesAs<ComputerUseIPCAppExecuteActionRequest>()},
      {ComputerUseIPCAppStartRequest::requestType, R"({"app":"Notes"})", decodesAs<ComputerUseIPCAppStartRequest>()},
      {ComputerUseIPCAppModifyRequest::requestType, R"({"app":"Notes","modification":"hide"})",
       decodesAs<ComputerUseIPCAppModifyRequest>()},
      {ComputerUseIPCAppUsageRequest::requestType, "{}", decodesAs<ComputerUseIPCAppUsageRequest>()},
      {ComputerUseIPCHostSessionObserveRequest::requestType, R"({"context":{"sessionId":"s"}})",
       decodesAs<ComputerUseIPCHostSessionObserveRequest>()},
      {ComputerUseIPCEventStreamStartRequest::requestType, R"({"sessionId":"s","maxDurationSeconds":60})",
       decodesAs<ComputerUseIPCEventStreamStartRequest>()},
      {ComputerUseIPCEventStreamStatusRequest::requestType, "{}", decodesAs<ComputerUseIPCEventStreamStatusRequest>()},
      {ComputerUseIPCEventStreamStopRequest::requestType, R"({"reason":"toolStopped"})",
       decodesAs<ComputerUseIPCEventStreamStopRequest>()},
      {ComputerUseIPCCancelRequest::requestType, R"({"requestID":"ABC"})",
       [](const std::string &bytes) { return bytes == "{}"; }},
      {ComputerUseIPCAppStartFrontmostCaptureRequest::requestType, R"({"requestId":"R1","windowID":1001})",
       decodesAs<ComputerUseIPCAppStartFrontmostCaptureRequest>()},
      {ComputerUseIPCAppNextCaptureUpdateRequest::requestType, R"({"requestId":"R1"})",
       decodesAs<ComputerUseIPCAppNextCaptureUpdateRequest>()},
      {ComputerUseIPCAppCancelCaptureRequest::requestType, R"({"requestId":"R1"})",
       [](const std::string &bytes) { return bytes == "{}"; }},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.type);
    const auto reply = router.route(row.type, row.body, {":1.1"});
    ASSERT_TRUE(reply.has_value()) << reply.error().errs;
    EXPECT_TRUE(row.decodes(*reply)) << *reply;
  }
  // The requests reached the desktop, and both action forms pressed Save.
  EXPECT_EQ(desktop.lastObservedContext(), (ComputerUseHostTurnContext{"s", std::nullopt}));
  const auto state = desktop.getAppState({"Notes", std::nullopt, ComputerUseIPCObservationKind::state, std::nullopt});
  EXPECT_NE(state->content[0].text->find("value: \"Saved 2 times\""), std::string::npos);
  EXPECT_FALSE(desktop.eventStreamStatus({})->isRecording) << "the stop request stopped the recording";
  EXPECT_EQ(desktop.eventStreamStatus({})->endReason, "toolStopped");
  EXPECT_FALSE(desktop.takeCaptureUpdate("R1").has_value()) << "the capture was cancelled";
}

// Routed, a next-update answers what is due or "timeout" at once, whatever it may wait;
// the service does the waiting.
TEST_F(RequestRouterTest, CaptureRequestsThroughTheRouter) {
  struct Row {
    std::string_view type;
    std::string body;
    std::string reply;          // exactly, or
    std::string updateType;     // the type of the envelope's update
    std::optional<RuntimeError> error;
  };
  const auto next = ComputerUseIPCAppNextCaptureUpdateRequest::requestType;
  const auto startType = ComputerUseIPCAppStartFrontmostCaptureRequest::requestType;
  const Row rows[] = {
      {startType, R"({"requestId":"C","bundleIdentifier":"com.tavix.sim.files"})", "", "", std::nullopt},
      {startType, R"({"requestId":"C"})",
       R"({"error":{"code":"capture_already_running","message":"A capture is already running with requestId \"C\""}})",
       "", std::nullopt},
      {startType, R"({"requestId":"D","windowID":4294967295})",
       R"({"error":{"code":"window_not_found","message":"Notes has no window 4294967295; its window is 1001"}})", "",
       std::nullopt},
      {startType, R"({"requestId":"D","windowID":4294967296})", "", "",
       RuntimeError{-50, "Invalid ComputerUseIPCAppStartFrontmostCaptureRequest: Expected an integer in range for "
                         "\"windowID\""}},
      {startType, R"({"requestId":"D","windowID":-1})", "", "",
       RuntimeError{-50, "Invalid ComputerUseIPCAppStartFrontmostCaptureRequest: Expected an integer in range for "
                         "\"windowID\""}},
      {next, R"({"requestId":"C","timeoutMs":60000})", "", "snapshot", std::nullopt},
      {next, R"({"requestId":"C","timeoutMs":60000})", R"({"requestId":"C","update":{"type":"timeout"}})", "",
       std::nullopt},
      {next, R"({"requestId":"C"})", R"({"requestId":"C","update":{"type":"timeout"}})", "", std::nullopt},
      {next, R"({"requestId":"ghost"})", "", "", RuntimeError{-1728, "No capture is running with requestId \"ghost\""}},
      {next, R"({"timeoutMs":0})", "", "",
       RuntimeError{-50, "Invalid ComputerUseIPCAppNextCaptureUpdateRequest: Missing required key \"requestId\""}},
      {ComputerUseIPCAppCancelCaptureRequest::requestType, R"({"requestId":"C"})", "{}", "", std::nullopt},
      {ComputerUseIPCAppCancelCaptureRequest::requestType, R"({"requestId":"C"})", "{}", "", std::nullopt},
      {ComputerUseIPCAppCancelCaptureRequest::requestType, "{}", "", "",
       RuntimeError{-50, "Invalid ComputerUseIPCAppCancelCaptureRequest: Missing required key \"requestId\""}},
      {next, R"({"requestId":"C","timeoutMs":0})", "", "",
       RuntimeError{-1728, "No capture is running with requestId \"C\""}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(std::string(row.type) + " " + row.body);
    const auto reply = router.route(row.type, row.body, {});
    if (row.error) {
      ASSERT_FALSE(reply.has_value()) << *reply;
      EXPECT_EQ(reply.error(), *row.error) << reply.error().errs;
      continue;
    }
    ASSERT_TRUE(reply.has_value()) << reply.error().errs;
    if (!row.reply.empty())
      EXPECT_EQ(*reply, row.reply);
    if (!row.updateType.empty())
      EXPECT_EQ(parseJSON(*reply).value()["update"]["type"], row.updateType);
    if (row.reply.empty() && row.updateType.empty())
      EXPECT_EQ(parseJSON(*reply).value()["target"]["bundleIdentifier"], "com.tavix.sim.files");
  }
}

TEST_F(RequestRouterTest, RefusalsNameTheTypeAndTheProblem) {
  const std::tuple<std::string, std::string, RuntimeError> rows[] = {
      {"ComputerUseIPCTeleportRequest", "{}", {1, "Unknown request type: ComputerUseIPCTeleportRequest"}},
      {"", "{}", {1, "Unknown request type: "}},
      {"computeruseipchealthrequest", "{}", {1, "Unknown request type: computeruseipchealthrequest"}},
      {"ComputerUseIPCHealthRequest", "{", {-50, "Invalid ComputerUseIPCHealthRequest: the body is not JSON"}},
      {"ComputerUseIPCHealthRequest", "", {-50, "Invalid ComputerUseIPCHealthRequest: the body is not JSON"}},
      {"ComputerUseIPCHealthRequest", "[]",
       {-50, "Invalid ComputerUseIPCHealthRequest: Expected an object for ComputerUseIPCHealthRequest"}},
      {"ComputerUseIPCAppGetStateRequest", "{}",
       {-50, "Invalid ComputerUseIPCAppGetStateRequest: Missing required key \"app\""}},
      {"ComputerUseIPCAppGetStateRequest", R"({"app":"Notes","observation":"video"})",
       {-50, "Invalid ComputerUseIPCAppGetStateRequest: Unknown value for \"observation\""}},
      {"ComputerUseIPCAppPerformActionRequest", R"({"app":"Notes","action":{"fly":{"_0":{}}}})",
       {-50, "Invalid ComputerUseIPCAppPerformActionRequest: Invalid number of keys found, expected one."}},
      {"ComputerUseIPCCancelRequest", "{}", {-50, "Invalid ComputerUseIPCCancelRequest: Missing required key \"requestID\""}},
      {"ComputerUseIPCEventStreamStartRequest", R"({"maxDurationSeconds":0})",
       {-50, "maxDurationSeconds must be from 1 to 3600, not 0"}},
  };
  for (const auto &[type, body, error] : rows) {
    const auto reply = router.route(type, body, {});
    ASSERT_FALSE(reply.has_value()) << type << " " << body;
    EXPECT_EQ(reply.error(), error) << type << " " << body;
  }
}

} // namespace
} // namespace tavix::test
