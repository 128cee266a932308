// What the simulator keeps of what happens. The journal of Send calls and of its own
// events: what an entry holds, the body kept only up to 64 KiB, and counting and listing by
// request type or event name. The Record & Replay session: starting, asking and stopping,
// the longest duration at its limits, and the recording that ends itself when its time is
// up.

#include "runtime/EventJournal.h"
#include "runtime/EventStreamRecorder.h"
#include "support/JSON.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using namespace runtime;

SendCall call(std::string type, std::string body, SendCall::Payload payload = SendCall::Payload::inlineBytes) {
  return {"ZlCu", "SndR", std::move(type), "ID-1", "1.0", payload, std::move(body), {}};
}

nlohmann::json json(std::string_view text) { return parseJSON(text).value(); }

TEST(EventJournal, AnEntryDescribesTheCallAndKeepsABodyOfUpTo64KiB) {
  // JSON strings whose whole text is 64 KiB, and a byte more.
  const std::string fits = "\"" + std::string(65534, 'x') + "\"", over = "\"" + std::string(65535, 'x') + "\"";
  const std::string head = R"({"requestType":"T","requestID":"ID-1","clientVersion":"1.0",)";
  const std::pair<SendCall, std::string> rows[] = {
      {call("ComputerUseIPCHealthRequest", R"({"refreshClientActivity":true})"),
       R"({"requestType":"ComputerUseIPCHealthRequest","requestID":"ID-1","clientVersion":"1.0","payload":"inline",
           "bodyBytes":30,"body":{"refreshClientActivity":true}})"},
      // Missing parts are null, and another event than a Send is named.
      {{.eventClass = "aevt", .eventID = "odoc"},
       R"({"requestType":null,"requestID":null,"clientVersion":null,"payload":"none","bodyBytes":0,"eventClass":"aevt","eventID":"odoc"})"},
      {call("T", fits, SendCall::Payload::memfd), head + R"("payload":"memfd","bodyBytes":65536,"body":)" + fits + "}"},
      {call("T", over, SendCall::Payload::memfd), head + R"("payload":"memfd","bodyBytes":65537})"},
      {call("T", "not json"), head + R"("payload":"inline","bodyBytes":8})"},
  };
  for (const auto &[sent, entry] : rows) {
    EventJournal journal;
    journal.record(sent);
    EXPECT_EQ(journal.entries("*"), json("[" + entry + "]")) << entry.substr(0, 200);
  }
}

TEST(EventJournal, SelectsByRequestTypeOrEventNameInOrder) {
  EventJournal journal;
  journal.record(call("A", "{}"));
  journal.recordEvent(EventJournal::captureUpdateWaiting, {{"requestID", "ID-1"}, {"captureRequestId", "A"}, {"timeoutMs", 30000}});
  journal.record(call("B", "{}"));
  journal.record(call("A", "{}"));
  EXPECT_EQ(journal.entries("captureUpdateWaiting"),
            json(R"([{"event":"captureUpdateWaiting","requestID":"ID-1","captureRequestId":"A","timeoutMs":30000}])"));
  EXPECT_EQ(journal.entries("*")[1]["event"], "captureUpdateWaiting");
  // An event is never selected by a field other than its name.
  const std::pair<const char *, size_t> rows[] = {{"A", 2}, {"B", 1}, {"captureUpdateWaiting", 1}, {"*", 4},
                                                  {"event", 0}, {"ID-1", 0}, {"C", 0}};
  for (const auto &[type, count] : rows) {
    EXPECT_EQ(journal.count(type), count) << type;
    EXPECT_EQ(journal.entries(type).size(), count) << type;
  }
  journal.clear();
  EXPECT_EQ(journal.count("*"), 0u);
  EXPECT_EQ(journal.entries("*"), nlohmann::json::array());
}

using Clock = std::chrono::system_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Status = ComputerUseIPCEventStreamSessionStatus;

const Clock::time_point start = Clock::time_point(milliseconds(1767225600123)); // 2026-01-01T00:00:00.123Z

ComputerUseIPCEventStreamStartRequest startRequest(std::optional<int64_t> maxDuration, std::string session = "session-1") {
  return {std::move(session), std::nullopt, maxDuration, ComputerUseIPCEventStreamScreenshotMode::windowChanges};
}

TEST(EventStreamRecorder, StartStatusStop) {
  EventStreamRecorder recorder;
  EXPECT_FALSE(recorder.status(start).isRecording);
  const auto started = recorder.start(startRequest(120), start).value();
  EXPECT_EQ(started.recordSessionId.value_or("").size(), 36u);
  const auto mode = ComputerUseIPCEventStreamScreenshotMode::windowChanges;
  EXPECT_EQ(started, (Status{.isRecording = true, .recordSessionId = started.recordSessionId, .startedAt = "2026-01-01T00:00:00.123Z",
                             .sessionId = "session-1", .maxDurationSeconds = 120, .screenshotMode = mode}));
  // Starting while recording answers the running session.
  EXPECT_EQ(recorder.start(startRequest(30, "session-2"), start + seconds(1)), started);
  recorder.recordEvent(start + seconds(1));
  recorder.recordEvent(start + seconds(2));
  EXPECT_EQ(recorder.status(start + seconds(3)).eventCount, 2);
  const auto stopped = recorder.stop(ComputerUseIPCEventStreamEndReason::toolStopped, start + seconds(4));
  EXPECT_EQ(stopped, (Status{.isRecording = false, .recordSessionId = started.recordSessionId, .startedAt = "2026-01-01T00:00:00.123Z",
                             .endedAt = "2026-01-01T00:00:04.123Z", .endReason = "toolStopped", .sessionId = "session-1",
                             .eventCount = 2, .maxDurationSeconds = 120, .screenshotMode = mode}));
  recorder.recordEvent(start + seconds(5));
  EXPECT_EQ(recorder.status(start + seconds(5)).eventCount, 2);
  // Stopping again changes nothing.
  EXPECT_EQ(recorder.stop(ComputerUseIPCEventStreamEndReason::error, start + seconds(6)), stopped);
}

TEST(EventStreamRecorder, TheLongestDurationIsOneSecondToOneHour) {
  // What is asked, and the longest duration of the recording started or the refusal.
  const std::string refused = "-50 maxDurationSeconds must be from 1 to 3600, not ";
  const std::pair<std::optional<int64_t>, std::string> rows[] = {
      {0, refused + "0"}, {1, "1"}, {3600, "3600"}, {3601, refused + "3601"}, {-5, refused + "-5"},
      {std::nullopt, std::to_string(EventStreamRecorder::defaultMaxDurationSeconds)}};
  for (const auto &[requested, expected] : rows) {
    EventStreamRecorder recorder;
    const auto started = recorder.start(startRequest(requested), start);
    EXPECT_EQ(started ? std::to_string(started->maxDurationSeconds) : std::to_string(started.error().errn) + " " + started.error().errs, expected);
    EXPECT_EQ(recorder.status(start).isRecording, started.has_value()) << expected;
  }
}

TEST(EventStreamRecorder, ARecordingEndsAtItsLongestDuration) {
  EventStreamRecorder recorder;
  ASSERT_TRUE(recorder.start(startRequest(10), start).has_value());
  EXPECT_TRUE(recorder.status(start + seconds(10) - milliseconds(1)).isRecording);
  const auto ended = recorder.status(start + seconds(10));
  EXPECT_EQ(std::tuple(ended.isRecording, ended.endReason, ended.endedAt), std::tuple(false, "maxDuration", "2026-01-01T00:00:10.123Z"));
  // A late look still reports the end at the limit, and a new recording may start.
  EXPECT_EQ(recorder.status(start + seconds(100)).endedAt, "2026-01-01T00:00:10.123Z");
  EXPECT_TRUE(recorder.start(startRequest(10), start + seconds(100))->isRecording);
  // Timestamps are UTC with milliseconds.
  EXPECT_EQ(EventStreamRecorder::timestamp(Clock::time_point(milliseconds(0))), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(EventStreamRecorder::timestamp(Clock::time_point(milliseconds(951782400999))), "2000-02-29T00:00:00.999Z");
}

} // namespace
} // namespace tavix::test
