// The tools through the MCP server, the gateway and the client down to a scripted runtime
// transport: which requests each tool sends and the exact result the host gets, the call's
// session and the general guide once per session, the Record & Replay tools' handling of a
// recording in progress, the host's turn, and the advice for an app once per app.

#include "gateway/BuiltInInstructions.h"
#include "gateway/MCPToolRequestScope.h"
#include "support/JSON.h"

#include "fakes/CapturedLog.h"
#include "testing/ToolCallHarness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

namespace tavix::test {
namespace {

using nlohmann::json;
using testing::AllOf, testing::ElementsAre, testing::HasSubstr;

std::string status(bool recording = false, const std::string &extra = "") {
  return std::string(R"({"isRecording":)") + (recording ? "true" : "false") + extra +
         R"(,"eventCount":0,"suppressedEventCount":0,"maxDurationSeconds":600,"screenshotMode":"off"})";
}

// The indented status the model reads.
std::string shown(const std::string &status) { return *prettyJSON(json::parse(status)); }

TEST(MCPToolGateway, EachToolSendsItsRequestsInTheCallsSessionAndAnswersWithItsResult) {
  const std::string recordingA = status(true, R"(,"sessionId":"a")"), statusSent = "ComputerUseIPCEventStreamStatusRequest {}";
  const std::string conflict = "Record & Replay is already recording for another session. Stop or discard it before "
                               "starting a new recording.";
  const std::string startSent = statusSent + "; ComputerUseIPCEventStreamStartRequest ";
  const std::string clickSent = R"(ComputerUseIPCAppPerformActionRequest {"action":{"click":{"_0":{"clickCount":1,)"
                                R"("elementIndex":9,"mouseButton":0}}},"app":"N","sessionId":"s"})";
  const struct {
    const char *tool, *arguments;
    std::string sent; // "<request type> <body>" of each request, in order
    ScriptedRequestTransport::Reply reply;
    std::string text; // of the result's one item
    bool isError = false, failed = false; // a failed call is not a result, so it brings no guide
    const char *session = "s";
  } cases[] = {
      {"list_apps", "{}", "ComputerUseIPCListAppsRequest {}", textReply, "done"},
      {"get_app_state", R"({"app":"N"})", R"(ComputerUseIPCAppGetStateRequest {"app":"N","sessionId":"s"})", textReply, "done"},
      // A runtime failure reported in the response stays the tool's result.
      {"click", R"({"app":"N","element_index":"9"})", clickSent,
       std::string(R"({"content":[{"type":"text","text":"No"}],"isError":true,"failure":{"kind":"invalidElement"}})"), "No", true},
      // Arguments that fail, and names that are no tool, send nothing.
      {"get_app_state", "{}", "", textReply, "Missing required argument: app", true, true},
      {"Click", R"({"app":"N"})", "", textReply, "Unknown tool: Click", true},
      // Record & Replay: the status as the model reads it, or the runtime's own error.
      {"event_stream_status", "{}", statusSent, status(), "{\n  \"eventCount\": 0,\n  \"isRecording\": false,\n  "
       "\"maxDurationSeconds\": 600,\n  \"screenshotMode\": \"off\",\n  \"suppressedEventCount\": 0\n}"},
      {"event_stream_status", "{}", statusSent, status(false, R"(,"errorMessage":"No.")"), "No.", true},
      {"event_stream_status", "{}", statusSent, status(false, R"(,"errorMessage":"")"), shown(status(false, R"(,"errorMessage":"")"))},
      {"event_stream_stop", "{}", R"(ComputerUseIPCEventStreamStopRequest {"reason":"toolStopped"})", status(), shown(status())},
      // Starting asks for the status first, starts only when nothing records, and never takes
      // over the recording of another session; the duration and mode are read leniently.
      {"event_stream_start", "{}", startSent + R"({"sessionId":"s"})", status(), shown(recordingA)},
      {"event_stream_start", R"({"max_duration_seconds":0,"screenshot_mode":"window_changes"})",
       startSent + R"({"maxDurationSeconds":1,"screenshotMode":"window_changes","sessionId":"s"})", status(), shown(recordingA)},
      {"event_stream_start", R"({"max_duration_seconds":"600","screenshot_mode":"Off"})",
       startSent + R"({"maxDurationSeconds":600})", status(), shown(recordingA), false, false, nullptr},
      {"event_stream_start", "{}", statusSent, recordingA, conflict, true},
      {"event_stream_start", "{}", statusSent, recordingA, shown(recordingA), false, false, "a"},
      {"event_stream_start", "{}", statusSent, recordingA, shown(recordingA), false, false, nullptr},
      {"event_stream_start", "{}", statusSent, status(true), shown(status(true))}, // recording for no session
      // A runtime app that cannot be reached fails the call; the host still reads a result.
      {"event_stream_start", "{}", statusSent, tl::unexpected(ClientFailure(ServerError{3, "x"})),
       "Internal error: Server error 3: x", true, true},
  };
  const json guide = {{"text", computerUseGuide()}, {"type", "text"}};
  // Every tool is served in either mode; the mode only decides what is listed.
  for (const auto mode : {MCPServerMode::computerUse, MCPServerMode::recordReplay})
    for (const auto &c : cases) {
      SCOPED_TRACE(std::string(c.tool) + " " + c.arguments + " " + c.reply.value_or("failure"));
      ToolCallHarness harness(mode);
      const auto session = c.session ? std::optional<std::string>(c.session) : std::nullopt;
      harness.setEnvironment("TAVIX_CHAT_SESSION_ID", session);
      harness.runtime().scriptDefault(c.reply);
      harness.runtime().script("ComputerUseIPCEventStreamStartRequest", {recordingA});
      json expected = {{"content", {{{"text", c.text}, {"type", "text"}}}}};
      if (c.session && !c.failed)
        expected["content"].insert(expected["content"].begin(), guide);
      if (c.isError)
        expected["isError"] = true;
      EXPECT_EQ(harness.result({{"name", c.tool}, {"arguments", json::parse(c.arguments)}}), expected);
      std::string sent;
      for (const auto &request : harness.runtime().sent()) { // the session, and the client's own time-out
        sent += (sent.empty() ? "" : "; ") + request.requestType + " " + request.body;
        EXPECT_EQ(std::pair(request.sessionID, request.timeoutSeconds), std::pair(session, std::optional<double>()));
      }
      EXPECT_EQ(sent, c.sent);
      harness.runtime().scriptDefault(textReply); // a failed call leaves the guide for the next
      EXPECT_EQ(harness.result({{"name", "list_apps"}}).at("content").size(), c.session && c.failed ? 2u : 1u);
    }
}

TEST(MCPToolRequestScope, TheSessionIsTheArgumentsMetaElseTheEnvironmentTrimmed) {
  const std::tuple<const char *, std::optional<std::string>, std::optional<std::string>> cases[] = {
      {R"({"_meta":{"sessionId":"  abc \n"}})", "env", "abc"}, {"{}", " env-1\t", "env-1"},
      {"{}", " \n ", std::nullopt}, {"{}", std::nullopt, std::nullopt},
      {R"({"_meta":{"sessionId":"  "}})", "env", "env"}, {R"({"_meta":{"sessionId":7}})", "env", "env"},
      {R"({"_meta":"abc"})", std::nullopt, std::nullopt}, {R"("abc")", "env", "env"}};
  for (const auto &[arguments, value, session] : cases) {
    const auto &environment = value; // clang 14 cannot capture a structured binding
    EXPECT_EQ(recordReplaySessionId(json::parse(arguments), [&](const char *name) {
                                      return name == std::string("TAVIX_CHAT_SESSION_ID") ? environment : std::nullopt;
                                    }),
              session)
        << arguments << " " << environment.value_or("<unset>");
  }
}

TEST(MCPToolGateway, CancellingACallReachesTheRequestItWaitsOn) {
  ToolCallHarness harness;
  harness.runtime().hold();
  std::stop_source cancellation;
  auto answer = std::async(std::launch::async, [&] {
    WithRequestContext request(std::make_shared<RequestContext>("call-1", cancellation.get_token()));
    return harness.result({{"name", "press_key"}, {"arguments", {{"app", "N"}, {"key", "a"}}}});
  });
  harness.runtime().waitForSent(1);
  cancellation.request_stop();
  // Bounded only so that a cancellation that never arrives fails rather than hangs.
  const bool ended = answer.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  harness.runtime().release();
  EXPECT_TRUE(ended);
  EXPECT_EQ(answer.get(), json::parse(R"({"content":[{"text":"Internal error: The request was cancelled.","type":"text"}],"isError":true})"));
}

TEST(MCPToolGateway, AHostTurnIsObservedBeforeTheToolRunsAndItsFailureOnlyLogged) {
  CapturedLog log;
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  harness.runtime().script("ComputerUseIPCHostSessionObserveRequest",
                           {std::string("{}"), tl::unexpected(ClientFailure(ServerError{-1708, std::nullopt}))});
  const json turn = {{"name", "list_apps"}, {"_meta", {{"com.tavix/turnContext", {{"sessionId", " s "}, {"turnId", "t1"}}}}}};
  for (const json &params : {turn, json{{"name", "list_apps"}}, turn})
    EXPECT_EQ(harness.call(params), answer(doneResult)); // the second has no turn, so nothing is observed
  EXPECT_EQ(harness.runtime().sent().at(0).body, R"({"context":{"sessionId":"s","turnId":"t1"}})");
  const std::string observe = "ComputerUseIPCHostSessionObserveRequest", listApps = "ComputerUseIPCListAppsRequest";
  EXPECT_EQ(harness.runtime().sentTypes(), (std::vector{observe, listApps, listApps, observe, listApps}));
  EXPECT_THAT(log.withEvent("host_session_observe_failed"),
              ElementsAre(AllOf(HasSubstr("level=warning"), HasSubstr("error=\"ServerError(domain=tavix.runtime,code=-1708)\""))));
}

TEST(AppInstructionDelivery, TheFirstStateOfAnAppCarriesItsAdviceOnceBeforeTheState) {
  ToolCallHarness harness;
  // The texts of the result's items, images as "<image>".
  const auto texts = [&](const char *tool, const std::string &app, const std::string &reply) {
    harness.runtime().scriptDefault(reply);
    std::vector<std::string> found;
    const json result = harness.result({{"name", tool}, {"arguments", {{"app", app}, {"key", "a"}}}});
    for (const auto &item : result.at("content"))
      found.push_back(item.value("text", "<image>"));
    return found;
  };
  const std::string stateReply =
      R"({"content":[{"type":"image","data":"AAAA"},{"type":"text","text":"<app_state>"},{"type":"text","text":"tree"}],"isError":false})";
  const auto advice = [](std::string_view baseName) {
    return "<app_specific_instructions>\n" + std::string(*builtInInstructions(baseName)) + "\n</app_specific_instructions>";
  };
  using Texts = std::vector<std::string>;
  const Texts plain = {"<image>", "<app_state>", "tree"};
  // Only get_app_state delivers.
  EXPECT_EQ(texts("press_key", "Excel", textReply), Texts{"done"});
  EXPECT_EQ(texts("get_app_state", "Excel", stateReply), (Texts{"<image>", advice("Excel"), "<app_state>", "tree"}));
  // However the app is named, its advice comes once; an app without advice gets none.
  EXPECT_EQ(texts("get_app_state", "/Applications/Microsoft Excel.app", stateReply), plain);
  EXPECT_EQ(texts("get_app_state", "Notes", stateReply), plain);
  // A state that could not be read keeps the advice for the next; without a state marker
  // the advice goes first.
  EXPECT_EQ(texts("get_app_state", "Numbers", R"({"content":[{"type":"text","text":"No"}],"isError":true})"), Texts{"No"});
  EXPECT_EQ(texts("get_app_state", "Numbers", textReply), (Texts{advice("Numbers"), "done"}));
}

TEST(AppInstructionDelivery, ConcurrentCallsForOneAppDeliverOnce) {
  ToolCallHarness harness;
  harness.runtime().scriptDefault(textReply);
  std::atomic<size_t> items{0};
  {
    std::vector<std::jthread> threads(8);
    for (auto &thread : threads)
      thread = std::jthread(
          [&] { items += harness.result({{"name", "get_app_state"}, {"arguments", {{"app", "Spotify"}}}})["content"].size(); });
  }
  EXPECT_EQ(items.load(), 8u + 1u); // one "done" each, and the advice once
}

} // namespace
} // namespace tavix::test
