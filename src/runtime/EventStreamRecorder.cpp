#include "runtime/EventStreamRecorder.h"

#include "support/Uuid.h"

#include <cstdio>
#include <ctime>

namespace tavix::runtime {

RuntimeResult<ComputerUseIPCEventStreamSessionStatus>
EventStreamRecorder::start(const ComputerUseIPCEventStreamStartRequest &request, Clock::time_point now) {
  endIfDue(now);
  if (status_.isRecording)
    return status_;
  const int64_t maxDuration = request.maxDurationSeconds.value_or(defaultMaxDurationSeconds);
  if (maxDuration < 1 || maxDuration > longestMaxDurationSeconds)
    return runtimeError(errn::invalidRequest, "maxDurationSeconds must be from 1 to " +
                                                  std::to_string(longestMaxDurationSeconds) + ", not " +
                                                  std::to_string(maxDuration));
  status_ = ComputerUseIPCEventStreamSessionStatus{};
  status_.isRecording = true;
  status_.recordSessionId = makeUUIDString();
  status_.sessionId = request.sessionId;
  status_.startedAt = timestamp(now);
  status_.maxDurationSeconds = maxDuration;
  status_.screenshotMode = request.screenshotMode.value_or(ComputerUseIPCEventStreamScreenshotMode::off);
  startedAt_ = now;
  return status_;
}

ComputerUseIPCEventStreamSessionStatus EventStreamRecorder::status(Clock::time_point now) {
  endIfDue(now);
  return status_;
}

ComputerUseIPCEventStreamSessionStatus EventStreamRecorder::stop(ComputerUseIPCEventStreamEndReason reason,
                                                                 Clock::time_point now) {
  endIfDue(now);
  if (status_.isRecording)
    end(std::string(rawValue(reason)), now);
  return status_;
}

void EventStreamRecorder::recordEvent(Clock::time_point now) {
  endIfDue(now);
  if (status_.isRecording)
    ++status_.eventCount;
}

void EventStreamRecorder::endIfDue(Clock::time_point now) {
  if (!status_.isRecording)
    return;
  const auto deadline = startedAt_ + std::chrono::seconds(status_.maxDurationSeconds);
  if (now >= deadline)
    end(std::string(rawValue(ComputerUseIPCEventStreamEndReason::maxDuration)), deadline);
}

void EventStreamRecorder::end(std::string reason, Clock::time_point at) {
  status_.isRecording = false;
  status_.endedAt = timestamp(at);
  status_.endReason = std::move(reason);
}

std::string EventStreamRecorder::timestamp(Clock::time_point time) {
  const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
  const std::time_t seconds = static_cast<std::time_t>(sinceEpoch.count() / 1000);
  const auto millis = static_cast<int>(sinceEpoch.count() % 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
  return text;
}

} // namespace tavix::runtime
