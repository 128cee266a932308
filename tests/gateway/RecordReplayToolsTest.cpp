// The Record & Replay tools through the server in its own mode: the requests in order,
// the conflict between sessions, the lenient reading of the duration and screenshot
// mode, and the status as the model reads it.

#include "gateway/RecordReplayTools.h"

#include "testing/ToolCallHarness.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using nlohmann::json;

std::string status(bool recording, const std::string &extra = "") {
  return std::string(R"({"isRecording":)") + (recording ? "true" : "false") + extra +
         R"(,"eventCount":0,"suppressedEventCount":0,"maxDurationSeconds":600,"screenshotMode":"off"})";
}

TEST(RecordReplayDuration, IsClampedNotRefused) {
  const struct {
    const char *arguments;
    std::optional<int64_t> seconds;
  } cases[] = {
      {R"({})", std::nullopt},
      {R"({"max_duration_seconds":null})", std::nullopt},
      {R"({"max_duration_seconds":0})", 1},
      {R"({"max_duration_seconds":1})", 1},
      {R"({"max_duration_seconds":-5})", 1},
      {R"({"max_duration_seconds":3600})", 3600},
      {R"({"max_duration_seconds":3601})", 3600},
      {R"({"max_duration_seconds":99999})", 3600},
      {R"({"max_duration_seconds":18446744073709551615})", 3600},
      {R"({"max_duration_seconds":-9223372036854775808})", 1},
      {R"({"max_duration_seconds":1e300})", 3600},
      {R"({"max_duration_seconds":-1e300})", 1},
      {R"({"max_duration_seconds":90.9})", 90},
      {R"({"max_duration_seconds":0.5})", 1},
      {R"({"max_duration_seconds":true})", 1},
      {R"({"max_duration_seconds":"600"})", 600},
      {R"({"max_duration_seconds":"+600"})", 600},
      {R"({"max_duration_seconds":"-600"})", 1},
      {R"({"max_duration_seconds":"0099999"})", 3600},
      {R"({"max_duration_seconds":"9223372036854775807"})", 3600},
      {R"({"max_duration_seconds":"9223372036854775808"})", std::nullopt},
      {R"({"max_duration_seconds":"-9223372036854775808"})", 1},
      {R"({"max_duration_seconds":"-9223372036854775809"})", std::nullopt},
      {R"({"max_duration_seconds":"ten"})", std::nullopt},
      {R"({"max_duration_seconds":""})", std::nullopt},
      {R"({"max_duration_seconds":" 600"})", std::nullopt},
      {R"({"max_duration_seconds":"600 "})", std::nullopt},
      {R"({"max_duration_seconds":"60.5"})", std::nullopt},
      {R"({"max_duration_seconds":"+-6"})", std::nullopt},
      {R"({"max_duration_seconds":"+"})", std::nullopt},
      {R"({"max_duration_seconds":"-"})", std::nullopt},
      {R"({"max_duration_seconds":[600]})", std::nullopt},
      {R"({"max_duration_seconds":{"s":600}})", std::nullopt},
  };
  for (const auto &c : cases)
    EXPECT_EQ(recordReplayDuration(json::parse(c.arguments)), c.seconds) << c.arguments;
}

TEST(RecordReplayScreenshotMode, OnlyExactModesCount) {
  using Mode = ComputerUseIPCEventStreamScreenshotMode;
  const struct {
    json value;
    std::optional<Mode> mode;
  } cases[] = {
      {"off", Mode::off},
      {"window_changes", Mode::windowChanges},
      {"interaction_settled", Mode::interactionSettled},
      {"Window_Changes", std::nullopt},
      {"windowChanges", std::nullopt},
      {" off", std::nullopt},
      {"", std::nullopt},
      {1, std::nullopt},
      {nullptr, std::nullopt},
  };
  for (const auto &c : cases)
    EXPECT_EQ(recordReplayScreenshotMode({{"screenshot_mode", c.value}}), c.mode) << c.value;
  EXPECT_EQ(recordReplayScreenshotMode(json::object()), std::nullopt);
}

TEST(RecordReplayResult, IsTheIndentedStatusOrItsErrorMessage) {
  ComputerUseIPCEventStreamSessionStatus recorded;
  recorded.isRecording = true;
  recorded.recordSessionId = "r/1";
  recorded.eventsPath = "/tmp/r/events.jsonl";
  recorded.endReason = "somethingNew";
  recorded.eventCount = 12;
  recorded.maxDurationSeconds = 60;
  recorded.screenshotMode = ComputerUseIPCEventStreamScreenshotMode::interactionSettled;
  EXPECT_EQ(recordReplayResult(recorded).toJSON(),
            json::parse(R"({"content":[{"type":"text","text":"{\n  \"endReason\": \"somethingNew\",\n  \"eventCount\": 12,\n  \"eventsPath\": \"/tmp/r/events.jsonl\",\n  \"isRecording\": true,\n  \"maxDurationSeconds\": 60,\n  \"recordSessionId\": \"r/1\",\n  \"screenshotMode\": \"interaction_settled\",\n  \"suppressedEventCount\": 0\n}"}]})"));
  recorded.errorMessage = "";
  EXPECT_FALSE(recordReplayResult(recorded).isError); // an empty message is no error
  recorded.errorMessage = "The user declined.";
  EXPECT_EQ(recordReplayResult(recorded), ToolResult::error("The user declined.", std::nullopt));
}

struct StartCase {
  const char *name;
  std::string currentStatus;
  json arguments;
  std::optional<std::string> environmentSession;
  // What the runtime receives after the status request; none when nothing is started.
  std::optional<std::string> startBody;
  std::string result;
  bool guided = false; // the session's first result starts with the general guide
};

TEST(RecordReplayTools, StartingAsksForTheStatusFirst) {
  const std::string started = status(true, R"(,"sessionId":"a")");
  const std::string startedResult =
      R"({"content":[{"text":"{\n  \"eventCount\": 0,\n  \"isRecording\": true,\n  \"maxDurationSeconds\": 600,\n  \"screenshotMode\": \"off\",\n  \"sessionId\": \"a\",\n  \"suppressedEventCount\": 0\n}","type":"text"}]})";
  const std::string conflict =
      R"({"content":[{"text":"Record & Replay is already recording for another session. Stop or discard it before starting a new recording.","type":"text"}],"isError":true})";
  const StartCase cases[] = {
      {"nothing recording", status(false), {{"_meta", {{"sessionId", "a"}}}}, std::nullopt, R"({"sessionId":"a"})",
       startedResult, true},
      {"duration and mode", status(false),
       {{"_meta", {{"sessionId", "a"}}}, {"max_duration_seconds", 0}, {"screenshot_mode", "window_changes"}},
       std::nullopt, R"({"maxDurationSeconds":1,"screenshotMode":"window_changes","sessionId":"a"})", startedResult, true},
      {"an unknown mode is left out", status(false),
       {{"_meta", {{"sessionId", "a"}}}, {"max_duration_seconds", "600"}, {"screenshot_mode", "Window_Changes"}},
       std::nullopt, R"({"maxDurationSeconds":600,"sessionId":"a"})", startedResult, true},
      {"no session", status(false), json::object(), std::nullopt, "{}", startedResult, false},
      {"session from the environment", status(false), json::object(), "a", R"({"sessionId":"a"})", startedResult, true},
      {"recording for another session", started, {{"_meta", {{"sessionId", "b"}}}}, std::nullopt, std::nullopt, conflict,
       true},
      {"recording for this session", started, {{"_meta", {{"sessionId", "a"}}}}, std::nullopt, std::nullopt,
       startedResult, true},
      {"recording, the call has no session", started, json::object(), std::nullopt, std::nullopt, startedResult, false},
      {"recording without a session", status(true), {{"_meta", {{"sessionId", "b"}}}}, std::nullopt, std::nullopt,
       R"({"content":[{"text":"{\n  \"eventCount\": 0,\n  \"isRecording\": true,\n  \"maxDurationSeconds\": 600,\n  \"screenshotMode\": \"off\",\n  \"suppressedEventCount\": 0\n}","type":"text"}]})",
       true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    ToolCallHarness harness(MCPServerMode::recordReplay);
    harness.setEnvironment("TAVIX_CHAT_SESSION_ID", c.environmentSession);
    harness.runtime().script("ComputerUseIPCEventStreamStatusRequest", {c.currentStatus});
    harness.runtime().script("ComputerUseIPCEventStreamStartRequest", {started});
    const std::string answered = *harness.call({{"name", "event_stream_start"}, {"arguments", c.arguments}});
    json result = json::parse(answered).at("result");
    if (c.guided) {
      ASSERT_TRUE(result["content"][0]["text"].get<std::string>().starts_with("# Computer Use\n"));
      result["content"].erase(0);
    }
    EXPECT_EQ(result, json::parse(c.result));
    const auto sent = harness.runtime().sent();
    ASSERT_EQ(sent.size(), c.startBody ? 2u : 1u);
    EXPECT_EQ(sent[0].requestType, "ComputerUseIPCEventStreamStatusRequest");
    EXPECT_EQ(sent[0].body, "{}");
    if (c.startBody) {
      EXPECT_EQ(sent[1].requestType, "ComputerUseIPCEventStreamStartRequest");
      EXPECT_EQ(sent[1].body, *c.startBody);
      EXPECT_EQ(sent[1].timeoutSeconds, std::nullopt);
    }
  }
}

TEST(RecordReplayTools, FailuresOfTheRuntimeAreErrors) {
  ToolCallHarness harness(MCPServerMode::recordReplay);
  harness.runtime().script("ComputerUseIPCEventStreamStatusRequest",
                           {status(false, R"(,"errorMessage":"Screen recording is not permitted.")")});
  EXPECT_EQ(harness.call({{"name", "event_stream_status"}}),
            answer(R"({"content":[{"text":"Screen recording is not permitted.","type":"text"}],"isError":true})"));
  harness.runtime().script("ComputerUseIPCEventStreamStatusRequest", {tl::unexpected(ClientFailure(ServerError{3, "x"}))});
  EXPECT_EQ(harness.call({{"name", "event_stream_start"}}),
            answer(R"({"content":[{"text":"Internal error: Server error 3: x","type":"text"}],"isError":true})"));
  EXPECT_EQ(harness.runtime().sentTypes(), (std::vector<std::string>{"ComputerUseIPCEventStreamStatusRequest",
                                                                     "ComputerUseIPCEventStreamStatusRequest"}));
}

} // namespace
} // namespace tavix::test
