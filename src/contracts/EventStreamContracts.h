#pragma once
// The records of Record & Replay: start a recording of the user's interactions, ask for
// its status, stop it. Each request is answered with the session's status.

#include "contracts/ComputerUseRequests.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tavix {

enum class ComputerUseIPCEventStreamScreenshotMode { off, windowChanges, interactionSettled };
template <> struct RawValues<ComputerUseIPCEventStreamScreenshotMode> {
  static constexpr std::array<std::string_view, 3> names = {"off", "window_changes",
                                                            "interaction_settled"};
};

// Why a recording ended; the bridge itself only sends toolStopped.
enum class ComputerUseIPCEventStreamEndReason {
  userStoppedSession,
  approvalCancelled,
  toolStopped,
  debugUIStopped,
  recordingControlsStopped,
  recordingControlsCancelled,
  maxDuration,
  error,
};
template <> struct RawValues<ComputerUseIPCEventStreamEndReason> {
  static constexpr std::array<std::string_view, 8> names = {
      "userStoppedSession",       "approvalCancelled",          "toolStopped", "debugUIStopped",
      "recordingControlsStopped", "recordingControlsCancelled", "maxDuration", "error"};
};

struct ComputerUseIPCEventStreamSessionStatus {
  bool isRecording = false;
  std::optional<std::string> recordSessionId;
  std::optional<std::string> sessionDirectoryPath;
  std::optional<std::string> eventsPath;
  std::optional<std::string> metadataPath;
  std::optional<std::string> suppressedEventsPath;
  std::optional<std::string> startedAt;
  std::optional<std::string> endedAt;
  std::optional<std::string> endReason; // plain text: a reason this bridge does not know still decodes
  std::optional<std::string> errorMessage;
  std::optional<std::string> sessionId;
  int64_t eventCount = 0;
  int64_t suppressedEventCount = 0;
  int64_t maxDurationSeconds = 0;
  ComputerUseIPCEventStreamScreenshotMode screenshotMode = ComputerUseIPCEventStreamScreenshotMode::off;
  using R = ComputerUseIPCEventStreamSessionStatus;
  static constexpr auto fields = std::make_tuple(
      field("isRecording", &R::isRecording), field("recordSessionId", &R::recordSessionId),
      field("sessionDirectoryPath", &R::sessionDirectoryPath), field("eventsPath", &R::eventsPath),
      field("metadataPath", &R::metadataPath), field("suppressedEventsPath", &R::suppressedEventsPath),
      field("startedAt", &R::startedAt), field("endedAt", &R::endedAt),
      field("endReason", &R::endReason), field("errorMessage", &R::errorMessage),
      field("sessionId", &R::sessionId), field("eventCount", &R::eventCount),
      field("suppressedEventCount", &R::suppressedEventCount),
      field("maxDurationSeconds", &R::maxDurationSeconds), field("screenshotMode", &R::screenshotMode));
  TAVIX_RECORD_JSON(ComputerUseIPCEventStreamSessionStatus);
};

struct ComputerUseIPCEventStreamStartRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCEventStreamStartRequest";
  using Response = ComputerUseIPCEventStreamSessionStatus;
  std::optional<std::string> sessionId;
  std::optional<bool> approvalAlreadyGranted;
  std::optional<int64_t> maxDurationSeconds;
  std::optional<ComputerUseIPCEventStreamScreenshotMode> screenshotMode;
  using R = ComputerUseIPCEventStreamStartRequest;
  static constexpr auto fields = std::make_tuple(
      field("sessionId", &R::sessionId), field("approvalAlreadyGranted", &R::approvalAlreadyGranted),
      field("maxDurationSeconds", &R::maxDurationSeconds), field("screenshotMode", &R::screenshotMode));
  TAVIX_RECORD_JSON(ComputerUseIPCEventStreamStartRequest);
};

struct ComputerUseIPCEventStreamStatusRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCEventStreamStatusRequest";
  using Response = ComputerUseIPCEventStreamSessionStatus;
  static constexpr auto fields = std::make_tuple();
  TAVIX_RECORD_JSON(ComputerUseIPCEventStreamStatusRequest);
};

struct ComputerUseIPCEventStreamStopRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCEventStreamStopRequest";
  using Response = ComputerUseIPCEventStreamSessionStatus;
  ComputerUseIPCEventStreamEndReason reason = ComputerUseIPCEventStreamEndReason::toolStopped;
  static constexpr auto fields =
      std::make_tuple(field("reason", &ComputerUseIPCEventStreamStopRequest::reason));
  TAVIX_RECORD_JSON(ComputerUseIPCEventStreamStopRequest);
};

} // namespace tavix
