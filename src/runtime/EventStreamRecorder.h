#pragma once
// The Record & Replay session of the virtual desktop: one recording at a time, started,
// asked about and stopped by its requests, counting the actions performed while it runs
// and ending itself when it reaches its longest duration. Nothing is written to disk: a
// virtual desktop has no user interactions to capture beyond the actions it is sent.

#include "contracts/EventStreamContracts.h"
#include "runtime/RuntimeError.h"

#include <chrono>
#include <string>

namespace tavix::runtime {

class EventStreamRecorder {
public:
  using Clock = std::chrono::system_clock;
  static constexpr int64_t defaultMaxDurationSeconds = 600;
  static constexpr int64_t longestMaxDurationSeconds = 3600;

  // A running recording answers with its status unchanged; a duration outside 1 to 3600
  // seconds is refused.
  RuntimeResult<ComputerUseIPCEventStreamSessionStatus> start(const ComputerUseIPCEventStreamStartRequest &request,
                                                              Clock::time_point now);
  ComputerUseIPCEventStreamSessionStatus status(Clock::time_point now);
  // Stopping when nothing records answers the last status unchanged.
  ComputerUseIPCEventStreamSessionStatus stop(ComputerUseIPCEventStreamEndReason reason, Clock::time_point now);
  // Counts one interaction, when a recording runs.
  void recordEvent(Clock::time_point now);

  // ISO 8601 in UTC with milliseconds: 2026-03-04T07:07:09.123Z.
  static std::string timestamp(Clock::time_point time);

private:
  void endIfDue(Clock::time_point now);
  void end(std::string reason, Clock::time_point at);

  ComputerUseIPCEventStreamSessionStatus status_;
  Clock::time_point startedAt_;
};

} // namespace tavix::runtime
