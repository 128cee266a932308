// Every request and response record through its JSON form: exact keys, optional keys left
// out when absent and read as absent when missing or null, every required key required,
// and the request type names.

#include "contracts/ComputerUseRequests.h"
#include "contracts/EventStreamContracts.h"

#include "testing/ContractFieldRules.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using nlohmann::json;

const json click = {{"click", {{"_0", {{"clickCount", 1}, {"elementIndex", 7}, {"mouseButton", 0}}}}}};

TEST(ContractRecords, RequestsFollowTheFieldRules) {
  expectFieldRules<ComputerUseIPCHealthRequest>({{"refreshClientActivity", true}}, {});
  expectFieldRules<ComputerUseIPCListAppsRequest>(json::object(), {});
  expectFieldRules<ComputerUseIPCAppGetStateRequest>(
      {{"app", "Notes"}, {"sessionId", "s"}, {"observation", "both"}, {"disableDiffing", false}}, {"app"});
  expectFieldRules<ComputerUseIPCAppPerformActionRequest>(
      {{"app", "Notes"}, {"action", click}, {"sessionId", "s"}}, {"app", "action"});
  expectFieldRules<ComputerUseIPCAppExecuteActionRequest>(
      {{"app", "Notes"}, {"action", click}, {"sessionId", "s"}}, {"app", "action"});
  expectFieldRules<ComputerUseIPCAppStartRequest>({{"app", "Notes"}}, {"app"});
  expectFieldRules<ComputerUseIPCAppModifyRequest>({{"app", "Notes"}, {"modification", "hide"}},
                                                   {"app", "modification"});
  expectFieldRules<ComputerUseIPCAppUsageRequest>(json::object(), {});
  expectFieldRules<ComputerUseIPCHostSessionObserveRequest>(
      {{"context", {{"sessionId", "s"}, {"turnId", "t"}}}}, {"context"});
  expectFieldRules<ComputerUseHostTurnContext>({{"sessionId", "s"}, {"turnId", "t"}}, {"sessionId"});
  expectFieldRules<ComputerUseIPCCancelRequest>({{"requestID", "ABC"}}, {"requestID"});
  expectFieldRules<ComputerUseIPCEventStreamStartRequest>(
      {{"sessionId", "s"}, {"approvalAlreadyGranted", true}, {"maxDurationSeconds", 600},
       {"screenshotMode", "window_changes"}},
      {});
  expectFieldRules<ComputerUseIPCEventStreamStatusRequest>(json::object(), {});
  expectFieldRules<ComputerUseIPCEventStreamStopRequest>({{"reason", "toolStopped"}}, {"reason"});
}

TEST(ContractRecords, ResponsesFollowTheFieldRules) {
  expectFieldRules<ComputerUseIPCHealthResponse>(
      {{"generationID", "g"}, {"runtimePID", 4242}, {"bundleIdentifier", "com.tavix.computeruse"},
       {"bundlePath", "/opt/runtime"}, {"isHealthy", true}, {"activeClientCount", 2},
       {"heartbeatTimeoutSeconds", 90.5}},
      {"generationID", "runtimePID", "bundleIdentifier", "bundlePath", "isHealthy"});
  expectFieldRules<ComputerUseIPCEmptyResponse>(json::object(), {});
  expectFieldRules<ComputerUseIPCToolResultResponse>(
      {{"content", json::array({{{"type", "text"}, {"text", "t"}},
                                {{"type", "image"}, {"data", "AAAA"}, {"mimeType", "image/jpeg"}}})},
       {"isError", true},
       {"failure", {{"kind", "staleState"}, {"detail", "d"}, {"elementID", "3"}, {"nativeCode", -10011}}}},
      {"content", "isError"});
  expectFieldRules<ComputerUseIPCToolContentBlock>(
      {{"type", "image"}, {"text", "t"}, {"data", "AAAA"}, {"mimeType", "image/png"}}, {"type"});
  expectFieldRules<ComputerUseFailure>(
      {{"kind", "lockedUseTimedOut"}, {"detail", "d"}, {"elementID", "e"}, {"nativeCode", 5}}, {"kind"});
  expectFieldRules<ComputerUseIPCEventStreamSessionStatus>(
      {{"isRecording", true}, {"recordSessionId", "r"}, {"sessionDirectoryPath", "/d"},
       {"eventsPath", "/d/e"}, {"metadataPath", "/d/m"}, {"suppressedEventsPath", "/d/s"},
       {"startedAt", "2026-11-23T08:00:00Z"}, {"endedAt", "2026-11-23T08:10:00Z"},
       {"endReason", "somethingNew"}, {"errorMessage", "e"}, {"sessionId", "s"}, {"eventCount", 3},
       {"suppressedEventCount", 1}, {"maxDurationSeconds", 600}, {"screenshotMode", "interaction_settled"}},
      {"isRecording", "eventCount", "suppressedEventCount", "maxDurationSeconds", "screenshotMode"});
}

TEST(ContractRecords, RequestTypesAreTheRecordNames) {
  const std::pair<std::string_view, std::string_view> types[] = {
      {ComputerUseIPCHealthRequest::requestType, "ComputerUseIPCHealthRequest"},
      {ComputerUseIPCListAppsRequest::requestType, "ComputerUseIPCListAppsRequest"},
      {ComputerUseIPCAppGetStateRequest::requestType, "ComputerUseIPCAppGetStateRequest"},
      {ComputerUseIPCAppPerformActionRequest::requestType, "ComputerUseIPCAppPerformActionRequest"},
      {ComputerUseIPCAppExecuteActionRequest::requestType, "ComputerUseIPCAppExecuteActionRequest"},
      {ComputerUseIPCAppStartRequest::requestType, "ComputerUseIPCAppStartRequest"},
      {ComputerUseIPCAppModifyRequest::requestType, "ComputerUseIPCAppModifyRequest"},
      {ComputerUseIPCAppUsageRequest::requestType, "ComputerUseIPCAppUsageRequest"},
      {ComputerUseIPCHostSessionObserveRequest::requestType, "ComputerUseIPCHostSessionObserveRequest"},
      {ComputerUseIPCCancelRequest::requestType, "ComputerUseIPCCancelRequest"},
      {ComputerUseIPCEventStreamStartRequest::requestType, "ComputerUseIPCEventStreamStartRequest"},
      {ComputerUseIPCEventStreamStatusRequest::requestType, "ComputerUseIPCEventStreamStatusRequest"},
      {ComputerUseIPCEventStreamStopRequest::requestType, "ComputerUseIPCEventStreamStopRequest"},
  };
  for (const auto &[type, name] : types)
    EXPECT_EQ(type, name);
  // The cancel request is sent by hand, never through the client.
  static_assert(ComputerUseRequest<ComputerUseIPCHealthRequest>);
  static_assert(ComputerUseRequest<ComputerUseIPCEventStreamStopRequest>);
  static_assert(!ComputerUseRequest<ComputerUseIPCCancelRequest>);
  static_assert(std::is_same_v<ComputerUseIPCAppStartRequest::Response, ComputerUseIPCEmptyResponse>);
  static_assert(std::is_same_v<ComputerUseIPCListAppsRequest::Response, ComputerUseIPCToolResultResponse>);
}

TEST(ContractRecords, ExactEncodings) {
  const std::pair<json, std::string> cases[] = {
      {ComputerUseIPCHealthRequest{}.toJSON(), "{}"},
      {ComputerUseIPCHealthRequest{true}.toJSON(), R"({"refreshClientActivity":true})"},
      {ComputerUseIPCAppGetStateRequest{"Notes", {}, {}, {}}.toJSON(), R"({"app":"Notes"})"},
      {ComputerUseIPCAppGetStateRequest{"Notes", "s", ComputerUseIPCObservationKind::screenshot, true}.toJSON(),
       R"({"app":"Notes","disableDiffing":true,"observation":"screenshot","sessionId":"s"})"},
      {ComputerUseIPCEmptyResponse{}.toJSON(), "{}"},
      {ComputerUseIPCEventStreamStatusRequest{}.toJSON(), "{}"},
      {ComputerUseIPCEventStreamStopRequest{ComputerUseIPCEventStreamEndReason::toolStopped}.toJSON(),
       R"({"reason":"toolStopped"})"},
      {ComputerUseIPCCancelRequest{"ID-1"}.toJSON(), R"({"requestID":"ID-1"})"},
      {ComputerUseIPCAppPerformActionRequest{
           {"Notes", {ClickParams{7, std::nullopt, std::nullopt, 1, 0}}, "S"}}.toJSON(),
       R"({"action":{"click":{"_0":{"clickCount":1,"elementIndex":7,"mouseButton":0}}},"app":"Notes","sessionId":"S"})"},
  };
  for (const auto &[value, text] : cases)
    EXPECT_EQ(value.dump(), text);
}

TEST(ContractRecords, EnumerationsReadOnlyTheirRawValues) {
  struct Case {
    std::function<bool(const json &)> decodes;
    json accepted, refused;
  };
  const auto getState = [](const json &observation) {
    return ComputerUseIPCAppGetStateRequest::fromJSON({{"app", "a"}, {"observation", observation}}).has_value();
  };
  const auto start = [](const json &mode) {
    return ComputerUseIPCEventStreamStartRequest::fromJSON({{"screenshotMode", mode}}).has_value();
  };
  const auto stop = [](const json &reason) {
    return ComputerUseIPCEventStreamStopRequest::fromJSON({{"reason", reason}}).has_value();
  };
  const auto failure = [](const json &kind) { return ComputerUseFailure::fromJSON({{"kind", kind}}).has_value(); };
  const Case cases[] = {
      {getState, "both", "all"},       {getState, "state", "State"},
      {getState, "screenshot", 1},     {start, "window_changes", "windowChanges"},
      {start, "off", "none"},          {start, "interaction_settled", "interactionSettled"},
      {stop, "recordingControlsCancelled", "stopped"},
      {stop, "error", nullptr},        {failure, "blockedURL", "blockedUrl"},
      {failure, "lockedUseUnlockFailed", "lockedUse"},
  };
  for (const auto &c : cases) {
    EXPECT_TRUE(c.decodes(c.accepted)) << c.accepted;
    EXPECT_FALSE(c.decodes(c.refused)) << c.refused;
  }
  EXPECT_EQ(ComputerUseIPCEventStreamStopRequest::fromJSON({{"reason", "stopped"}}).error().description,
            "Unknown value for \"reason\"");
}

TEST(ContractRecords, IntegersMustBeWholeAndInRange) {
  const auto pid = [](const json &value) {
    return ComputerUseIPCHealthResponse::fromJSON({{"generationID", "g"}, {"runtimePID", value},
                                                   {"bundleIdentifier", "b"}, {"bundlePath", "p"},
                                                   {"isHealthy", true}});
  };
  // Built in code (signed), parsed (unsigned when not negative), and as doubles.
  for (const json &accepted : {json(2147483647), json(-2147483648LL), json(7.0), json(0), json::parse("2147483647"),
                               json(2147483647.0), json(-2147483648.0)})
    EXPECT_TRUE(pid(accepted).has_value()) << accepted;
  for (const json &refused : {json(2147483648LL), json(-2147483649LL), json(7.5), json("7"), json(true),
                              json::parse("2147483648"), json(2147483648.0), json(-2147483649.0),
                              json::parse("18446744073709551615")})
    EXPECT_FALSE(pid(refused).has_value()) << refused;
  EXPECT_EQ(pid(2147483648LL).error().description, "Expected an integer in range for \"runtimePID\"");
}

} // namespace
} // namespace tavix::test
