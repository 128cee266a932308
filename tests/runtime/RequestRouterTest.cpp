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

using Check = std::function<bool(const std::string &)>;
struct Row { std::string_view type; std::string body; Check answers; };

// A request of type `Request` whose reply `check` accepts, by default one its response
// record decodes.
template <typename Request> Row row(std::string body, Check check = [](const std::string &bytes) {
  const auto json = parseJSON(bytes);
  return json && Request::Response::fromJSON(*json).has_value();
}) {
  return {Request::requestType, std::move(body), std::move(check)};
}
Check is(std::string expected) { return [expected](const std::string &bytes) { return bytes == expected; }; }

class RequestRouterTest : public testing::Test {
protected:
  VirtualDesktop desktop{VirtualDesktopOptions{}};
  RequestRouter router{desktop};
};

TEST_F(RequestRouterTest, EveryRequestTypeAnswersItsResponse) {
  const Row rows[] = {
      row<ComputerUseIPCHealthRequest>(R"({"refreshClientActivity":true})"),
      row<ComputerUseIPCListAppsRequest>("{}"),
      row<ComputerUseIPCAppGetStateRequest>(R"({"app":"Notes"})"),
      row<ComputerUseIPCAppPerformActionRequest>(
          R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":3,"clickCount":1,"mouseButton":0}}}})"),
      row<ComputerUseIPCAppExecuteActionRequest>(R"({"app":"Notes","action":{"pressKey":{"_0":{"key":"Return"}}}})"),
      row<ComputerUseIPCAppStartRequest>(R"({"app":"Notes"})", is("{}")),
      row<ComputerUseIPCAppModifyRequest>(R"({"app":"Notes","modification":"hide"})", is("{}")),
      row<ComputerUseIPCAppUsageRequest>("{}", is("{}")),
      row<ComputerUseIPCHostSessionObserveRequest>(R"({"context":{"sessionId":"s"}})", is("{}")),
      row<ComputerUseIPCEventStreamStartRequest>(R"({"sessionId":"s","maxDurationSeconds":60})"),
      row<ComputerUseIPCEventStreamStatusRequest>("{}"),
      row<ComputerUseIPCEventStreamStopRequest>(R"({"reason":"toolStopped"})"),
      row<ComputerUseIPCCancelRequest>(R"({"requestID":"ABC"})", is("{}")),
      // Files, as it names it (which window ids a start may name is the desktop's test, and
      // the record's).
      row<ComputerUseIPCAppStartFrontmostCaptureRequest>(R"({"requestId":"R1","bundleIdentifier":"com.tavix.sim.files"})",
          [](const std::string &bytes) { return parseJSON(bytes).value()["target"]["bundleIdentifier"] == "com.tavix.sim.files"; }),
      // The first update is due; after it, however long the call may wait, "timeout" at once.
      row<ComputerUseIPCAppNextCaptureUpdateRequest>(R"({"requestId":"R1","timeoutMs":60000})"),
      row<ComputerUseIPCAppNextCaptureUpdateRequest>(R"({"requestId":"R1","timeoutMs":60000})",
                                                     is(R"({"requestId":"R1","update":{"type":"timeout"}})")),
      // Cancelling a capture twice succeeds twice.
      row<ComputerUseIPCAppCancelCaptureRequest>(R"({"requestId":"R1"})", is("{}")),
      row<ComputerUseIPCAppCancelCaptureRequest>(R"({"requestId":"R1"})", is("{}")),
  };
  for (const auto &[type, body, answers] : rows) {
    SCOPED_TRACE(std::string(type) + " " + body);
    const auto reply = router.route(type, body, {":1.1"});
    ASSERT_TRUE(reply.has_value()) << reply.error().errs;
    EXPECT_TRUE(answers(*reply)) << *reply;
  }
  // The requests reached the desktop, and both action forms pressed Save.
  EXPECT_EQ(desktop.lastObservedContext(), (ComputerUseHostTurnContext{"s", std::nullopt}));
  const auto state = desktop.getAppState({"Notes", std::nullopt, ComputerUseIPCObservationKind::state, std::nullopt});
  EXPECT_NE(state->content[0].text->find("value: \"Saved 2 times\""), std::string::npos);
  EXPECT_EQ(desktop.eventStreamStatus({})->endReason, "toolStopped");
  // The health request refreshed its caller's activity, not another's.
  EXPECT_EQ(desktop.health(ComputerUseIPCHealthRequest{true}, {":1.1"})->activeClientCount, 1);
  EXPECT_FALSE(desktop.takeCaptureUpdate("R1").has_value()) << "the capture was cancelled";
}

// What a body may hold is the records' own affair; here, that a refusal names the type.
TEST_F(RequestRouterTest, RefusalsNameTheTypeAndTheProblem) {
  const std::tuple<std::string, std::string, RuntimeError> rows[] = {
      {"ComputerUseIPCTeleportRequest", "{}", {1, "Unknown request type: ComputerUseIPCTeleportRequest"}},
      {"computeruseipchealthrequest", "{}", {1, "Unknown request type: computeruseipchealthrequest"}},
      {"ComputerUseIPCHealthRequest", "{", {-50, "Invalid ComputerUseIPCHealthRequest: the body is not JSON"}},
      {"ComputerUseIPCHealthRequest", "", {-50, "Invalid ComputerUseIPCHealthRequest: the body is not JSON"}},
      {"ComputerUseIPCAppGetStateRequest", "{}", {-50, "Invalid ComputerUseIPCAppGetStateRequest: Missing required key \"app\""}},
      // The cancel has a route of its own.
      {"ComputerUseIPCCancelRequest", "{}", {-50, "Invalid ComputerUseIPCCancelRequest: Missing required key \"requestID\""}},
      // The desktop's own errors pass through.
      {"ComputerUseIPCEventStreamStartRequest", R"({"maxDurationSeconds":0})",
       {-50, "maxDurationSeconds must be from 1 to 3600, not 0"}},
      {"ComputerUseIPCAppNextCaptureUpdateRequest", R"({"requestId":"ghost"})",
       {-1728, "No capture is running with requestId \"ghost\""}},
  };
  for (const auto &[type, body, error] : rows) {
    const auto reply = router.route(type, body, {});
    ASSERT_FALSE(reply.has_value()) << type << " " << body;
    EXPECT_EQ(reply.error(), error) << type << " " << body;
  }
}

} // namespace
} // namespace tavix::test
