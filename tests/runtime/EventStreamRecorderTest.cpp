// The Record & Replay session: starting, asking and stopping, the longest duration at its
// limits, and the recording that ends itself when its time is up.

#include "runtime/EventStreamRecorder.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using runtime::EventStreamRecorder;
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
  const std::pair<std::optional<int64_t>, std::optional<int64_t>> rows[] = {
      {0, std::nullopt}, {1, 1}, {3600, 3600}, {3601, std::nullopt}, {-5, std::nullopt},
      {std::nullopt, EventStreamRecorder::defaultMaxDurationSeconds}};
  for (const auto &[requested, accepted] : rows) {
    EventStreamRecorder recorder;
    const auto started = recorder.start(startRequest(requested), start);
    if (accepted) {
      EXPECT_EQ(started.value().maxDurationSeconds, *accepted);
      continue;
    }
    EXPECT_EQ(started.error(), (runtime::RuntimeError{-50, "maxDurationSeconds must be from 1 to 3600, not " +
                                                                std::to_string(*requested)}));
    EXPECT_FALSE(recorder.status(start).isRecording);
  }
}

TEST(EventStreamRecorder, ARecordingEndsAtItsLongestDuration) {
  EventStreamRecorder recorder;
  ASSERT_TRUE(recorder.start(startRequest(10), start).has_value());
  EXPECT_TRUE(recorder.status(start + seconds(10) - milliseconds(1)).isRecording);
  const auto ended = recorder.status(start + seconds(10));
  EXPECT_FALSE(ended.isRecording);
  EXPECT_EQ(ended.endReason, "maxDuration");
  EXPECT_EQ(ended.endedAt, "2026-01-01T00:00:10.123Z");
  // A late look still reports the end at the limit, and a new recording may start.
  EXPECT_EQ(recorder.status(start + seconds(100)).endedAt, "2026-01-01T00:00:10.123Z");
  EXPECT_TRUE(recorder.start(startRequest(10), start + seconds(100))->isRecording);
  // Timestamps are UTC with milliseconds.
  EXPECT_EQ(EventStreamRecorder::timestamp(Clock::time_point(milliseconds(0))), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(EventStreamRecorder::timestamp(Clock::time_point(milliseconds(951782400999))), "2000-02-29T00:00:00.999Z");
}

} // namespace
} // namespace tavix::test
