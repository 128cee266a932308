// Routing requests by type: every request type reaches the desktop and answers JSON its
// response record decodes; an unknown type, a body that is not JSON and a body that is not
// the record answer the runtime errors a client can tell apart; a desktop's own error
// passes through.

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
