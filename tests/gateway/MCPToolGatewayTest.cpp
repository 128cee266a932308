// Every tool through the MCP server, the gateway and the client down to a scripted
// runtime transport: the exact request each tool sends, the exact answer the host gets,
// and nothing sent for arguments that fail.

#include "testing/ToolCallHarness.h"

#include "fakes/CapturedLog.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using nlohmann::json;


struct ToolCase {
  const char *tool;
  const char *arguments;
  // The request that reaches the runtime app: its type and body; none when the arguments fail.
  const char *requestType;
  const char *body;
  std::string reply = textReply;
  std::string result = doneResult;
};

TEST(MCPToolGateway, EachToolSendsItsRequestAndAnswersWithItsResult) {
  const ToolCase cases[] = {
      {"list_apps", "{}", "ComputerUseIPCListAppsRequest", "{}",
       R"({"content":[{"type":"text","text":"Notes\nSafari"}],"isError":false})",
       R"({"content":[{"text":"Notes\nSafari","type":"text"}]})"},
      {"get_app_state", R"({"app":"Notes"})", "ComputerUseIPCAppGetStateRequest", R"({"app":"Notes"})",
       R"({"content":[{"type":"image","data":"iVBORw=="},{"type":"text","text":"<app_state>"},{"type":"text","text":"0 window"}],"isError":false})",
       R"({"content":[{"data":"iVBORw==","mimeType":"image/png","type":"image"},{"text":"<app_state>","type":"text"},{"text":"0 window","type":"text"}]})"},
      {"click", R"({"app":"Notes","element_index":"7"})", "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"click":{"_0":{"clickCount":1,"elementIndex":7,"mouseButton":0}}},"app":"Notes"})"},
      {"click", R"({"app":"Notes","x":10,"y":20.5,"click_count":2,"mouse_button":"right"})",
       "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"click":{"_0":{"clickCount":2,"mouseButton":1,"x":10.0,"y":20.5}}},"app":"Notes"})"},
      {"perform_secondary_action", R"({"app":"Notes","element_index":"3","action":"AXShowMenu"})",
       "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"performSecondaryAction":{"_0":{"action":"AXShowMenu","elementIndex":3}}},"app":"Notes"})"},
      {"set_value", R"({"app":"Notes","element_index":"4","value":""})", "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"setValue":{"_0":{"elementIndex":4,"value":""}}},"app":"Notes"})"},
      {"select_text", R"({"app":"Notes","element_index":"5","text":"b","prefix":"a","selection":"cursor_after"})",
       "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"selectText":{"_0":{"elementIndex":5,"prefix":"a","selection":"cursor_after","text":"b"}}},"app":"Notes"})"},
      {"scroll", R"({"app":"Notes","element_index":"2","direction":"down","pages":0.5})",
       "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"scroll":{"_0":{"direction":1,"elementIndex":2,"pages":0.5}}},"app":"Notes"})"},
      {"drag", R"({"app":"Notes","from_x":1,"from_y":"2","to_x":3.5,"to_y":4})", "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"drag":{"_0":{"fromX":1.0,"fromY":2.0,"toX":3.5,"toY":4.0}}},"app":"Notes"})"},
      {"press_key", R"({"app":"Notes","key":"super+c"})", "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"pressKey":{"_0":{"key":"super+c"}}},"app":"Notes"})"},
      {"type_text", R"({"app":"Notes","text":"héllo\n"})", "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"typeText":{"_0":{"text":"héllo\n"}}},"app":"Notes"})"},
      {"paste", R"({"app":"Notes","text":"# T","format":"md"})", "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"paste":{"_0":{"format":"md","text":"# T"}}},"app":"Notes"})"},
      {"event_stream_status", "{}", "ComputerUseIPCEventStreamStatusRequest", "{}",
       R"({"isRecording":false,"eventCount":0,"suppressedEventCount":0,"maxDurationSeconds":600,"screenshotMode":"off"})",
       R"({"content":[{"text":"{\n  \"eventCount\": 0,\n  \"isRecording\": false,\n  \"maxDurationSeconds\": 600,\n  \"screenshotMode\": \"off\",\n  \"suppressedEventCount\": 0\n}","type":"text"}]})"},
      {"event_stream_stop", "{}", "ComputerUseIPCEventStreamStopRequest", R"({"reason":"toolStopped"})",
       R"({"isRecording":false,"endReason":"toolStopped","eventCount":3,"suppressedEventCount":0,"maxDurationSeconds":600,"screenshotMode":"off"})",
       R"({"content":[{"text":"{\n  \"endReason\": \"toolStopped\",\n  \"eventCount\": 3,\n  \"isRecording\": false,\n  \"maxDurationSeconds\": 600,\n  \"screenshotMode\": \"off\",\n  \"suppressedEventCount\": 0\n}","type":"text"}]})"},
      // A runtime failure reported in the response stays the tool's result.
      {"click", R"({"app":"Notes","element_index":"9"})", "ComputerUseIPCAppPerformActionRequest",
       R"({"action":{"click":{"_0":{"clickCount":1,"elementIndex":9,"mouseButton":0}}},"app":"Notes"})",
       R"({"content":[{"type":"text","text":"Element not found"}],"isError":true,"failure":{"kind":"invalidElement","elementID":"9"}})",
       R"({"content":[{"text":"Element not found","type":"text"}],"isError":true})"},
      // Arguments that fail send nothing; the first failure is the answer.
      {"get_app_state", "{}", nullptr, nullptr, textReply,
       R"({"content":[{"text":"Missing required argument: app","type":"text"}],"isError":true})"},
      {"click", R"({"app":"Notes"})", nullptr, nullptr, textReply,
       R"({"content":[{"text":"click requires an element_index string or both numeric x and y in screenshot pixel coordinates.","type":"text"}],"isError":true})"},
      {"scroll", R"({"app":"Notes","element_index":"1","direction":"down","pages":0})", nullptr, nullptr, textReply,
       R"({"content":[{"text":"pages must be a finite number in (0, 100].","type":"text"}],"isError":true})"},
      {"scroll", R"({"app":"Notes","element_index":"1","direction":"sideways"})", nullptr, nullptr, textReply,
       R"({"content":[{"text":"Invalid scroll direction: sideways","type":"text"}],"isError":true})"},
      {"paste", R"({"app":"Notes","text":"x","format":"rtf"})", nullptr, nullptr, textReply,
       R"({"content":[{"text":"Invalid paste format. Use text, md, or html.","type":"text"}],"isError":true})"},
      {"drag", R"({"app":"Notes","from_x":1,"from_y":2,"to_x":3})", nullptr, nullptr, textReply,
       R"({"content":[{"text":"Missing required argument: to_y","type":"text"}],"isError":true})"},
      {"type_text", R"({"app":"Notes","text":""})", nullptr, nullptr, textReply,
       R"({"content":[{"text":"Missing required argument: text","type":"text"}],"isError":true})"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + c.arguments);
    ToolCallHarness harness;
    harness.runtime().scriptDefault(c.reply);
    EXPECT_EQ(harness.call({{"name", c.tool}, {"arguments", json::parse(c.arguments)}}), answer(c.result));
    const auto sent = harness.runtime().sent();
    if (c.requestType == nullptr) {
      EXPECT_TRUE(sent.empty());
      continue;
    }
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].requestType, c.requestType);
    EXPECT_EQ(sent[0].body, c.body);
    EXPECT_EQ(sent[0].timeoutSeconds, std::nullopt);
  }
}

TEST(MCPToolGateway, ToolNamesAreExactAndEveryToolIsReachableInEitherMode) {
  for (const auto mode : {MCPServerMode::computerUse, MCPServerMode::recordReplay}) {
    ToolCallHarness harness(mode);
    harness.runtime().scriptDefault(textReply);
    EXPECT_EQ(harness.call({{"name", "Click"}, {"arguments", {{"app", "Notes"}}}}),
              answer(R"({"content":[{"text":"Unknown tool: Click","type":"text"}],"isError":true})"));
    EXPECT_EQ(harness.call({{"name", ""}}), answer(R"({"content":[{"text":"Unknown tool: ","type":"text"}],"isError":true})"));
    EXPECT_TRUE(harness.runtime().sent().empty());
    EXPECT_EQ(harness.call({{"name", "list_apps"}}), answer(doneResult));
    harness.runtime().scriptDefault(
        std::string(R"({"isRecording":false,"eventCount":0,"suppressedEventCount":0,"maxDurationSeconds":1,"screenshotMode":"off"})"));
    EXPECT_EQ(json::parse(*harness.call({{"name", "event_stream_status"}})).at("result").contains("isError"), false);
    EXPECT_EQ(harness.runtime().sentTypes(),
              (std::vector<std::string>{"ComputerUseIPCListAppsRequest", "ComputerUseIPCEventStreamStatusRequest"}));
  }
}

struct SessionCase {
  const char *name;
  json arguments;
  std::optional<std::string> environment;
  std::optional<std::string> sessionId; // what every request of the call carries
};

TEST(MCPToolGateway, EveryRequestOfACallCarriesTheCallsSession) {
  const SessionCase cases[] = {
      {"meta wins over the environment", {{"app", "Notes"}, {"_meta", {{"sessionId", "  abc \n"}}}}, "env", "abc"},
      {"environment, trimmed", {{"app", "Notes"}}, " env-1\t", "env-1"},
      {"blank environment means none", {{"app", "Notes"}}, " \n ", std::nullopt},
      {"no session anywhere", {{"app", "Notes"}}, std::nullopt, std::nullopt},
      {"blank meta falls back to the environment", {{"app", "Notes"}, {"_meta", {{"sessionId", "  "}}}}, "env", "env"},
      {"meta that is not text falls back", {{"app", "Notes"}, {"_meta", {{"sessionId", 7}}}}, "env", "env"},
      {"meta that is not an object falls back", {{"app", "Notes"}, {"_meta", "abc"}}, std::nullopt, std::nullopt},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    ToolCallHarness harness;
    harness.setEnvironment("TAVIX_CHAT_SESSION_ID", c.environment);
    harness.runtime().scriptDefault(textReply);
    harness.call({{"name", "get_app_state"}, {"arguments", c.arguments}});
    json clickArguments = c.arguments;
    clickArguments["element_index"] = "1";
    harness.call({{"name", "click"}, {"arguments", clickArguments}});
    const auto sent = harness.runtime().sent();
    ASSERT_EQ(sent.size(), 2u);
    for (const auto &request : sent) {
      const json body = json::parse(request.body);
      EXPECT_EQ(body.contains("sessionId") ? std::optional<std::string>(body["sessionId"]) : std::nullopt, c.sessionId);
      EXPECT_EQ(request.sessionID, c.sessionId);
    }
  }
}

TEST(MCPToolGateway, TheGuideGoesInFrontOfTheFirstResultOfEachSession) {
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  const auto firstText = [&](const json &arguments) {
    return harness.result({{"name", "press_key"}, {"arguments", arguments}}).at("content").at(0).at("text").get<std::string>();
  };
  const json inSession = {{"app", "Notes"}, {"key", "a"}, {"_meta", {{"sessionId", "s1"}}}};
  const std::string guide = firstText(inSession);
  EXPECT_TRUE(guide.starts_with("# Computer Use\n\nComputer Use lets Tavix interact")) << guide;
  EXPECT_EQ(harness.result({{"name", "press_key"}, {"arguments", inSession}}),
            json::parse(doneResult)); // once per session
  EXPECT_EQ(firstText({{"app", "Notes"}, {"key", "a"}, {"_meta", {{"sessionId", " s1 "}}}}), "done");
  EXPECT_EQ(firstText({{"app", "Notes"}, {"key", "a"}, {"_meta", {{"sessionId", "s2"}}}}), guide);
  EXPECT_EQ(firstText({{"app", "Notes"}, {"key", "a"}}), "done"); // no session, no guide
  // An unknown tool's result comes back normally too, so it carries the guide.
  const json unknown = harness.result({{"name", "hover"}, {"arguments", {{"_meta", {{"sessionId", "s3"}}}}}});
  EXPECT_EQ(unknown.at("content").size(), 2u);
  EXPECT_EQ(unknown.at("content").at(1).at("text"), "Unknown tool: hover");
  // A call that fails with an error gets no guide, and the session keeps it for later.
  EXPECT_EQ(harness.result({{"name", "press_key"}, {"arguments", {{"_meta", {{"sessionId", "s4"}}}}}}).at("content").size(), 1u);
  EXPECT_EQ(firstText({{"app", "Notes"}, {"key", "a"}, {"_meta", {{"sessionId", "s4"}}}}), guide);
}

TEST(MCPToolGateway, AHostTurnIsObservedBeforeTheToolRuns) {
  CapturedLog log;
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  harness.runtime().script("ComputerUseIPCHostSessionObserveRequest", {std::string("{}")});
  const json turn = {{"com.tavix/turnContext", {{"sessionId", " s "}, {"turnId", "t1"}}}};
  EXPECT_EQ(harness.call({{"name", "list_apps"}, {"_meta", turn}}), answer(doneResult));
  EXPECT_EQ(harness.call({{"name", "list_apps"}}), answer(doneResult)); // no turn, nothing observed
  // A failed observation is logged and the tool still runs.
  harness.runtime().script("ComputerUseIPCHostSessionObserveRequest",
                           {tl::unexpected(ClientFailure(ServerError{-1708, std::nullopt}))});
  EXPECT_EQ(harness.call({{"name", "list_apps"}, {"_meta", turn}}), answer(doneResult));
  const auto sent = harness.runtime().sent();
  ASSERT_EQ(sent.size(), 5u);
  EXPECT_EQ(sent[0].requestType, "ComputerUseIPCHostSessionObserveRequest");
  EXPECT_EQ(sent[0].body, R"({"context":{"sessionId":"s","turnId":"t1"}})");
  EXPECT_EQ(sent[0].timeoutSeconds, std::nullopt);
  EXPECT_EQ(sent[1].requestType, "ComputerUseIPCListAppsRequest");
  EXPECT_EQ(sent[2].requestType, "ComputerUseIPCListAppsRequest");
  EXPECT_EQ(sent[3].requestType, "ComputerUseIPCHostSessionObserveRequest");
  EXPECT_EQ(sent[4].requestType, "ComputerUseIPCListAppsRequest");
  const auto failed = log.withEvent("host_session_observe_failed");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_NE(failed[0].find("level=warning"), std::string::npos) << failed[0];
  EXPECT_NE(failed[0].find("error=\"ServerError(domain=tavix.runtime,code=-1708)\""), std::string::npos) << failed[0];
}

} // namespace
} // namespace tavix::test
