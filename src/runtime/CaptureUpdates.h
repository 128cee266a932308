#pragma once
// An appshot capture's updates as a next-update request receives them. The desktop
// decides which update is due; the service waits for one outside its workers and ends the
// wait itself when the time is up or the capture is cancelled. What both share is here:
// the update types, the error codes of a start, how long a next-update may wait, and one
// look at a capture, which either answers the call or leaves it waiting.
//
// Update types (the `type` of the envelope's `update`):
//   "snapshot"   the first update of a capture: `target` and `transitionSnapshotDataURL`,
//                the window's picture for the host's transition
//   "frame"      the desktop changed since the capture's last update: `target` (the window
//                title may have changed with it) and `screenshotDataURL`
//   "timeout"    nothing came due within the wait
//   "cancelled"  the capture was cancelled while the call waited
// Pictures are PNG data URLs ("data:image/png;base64,...").

#include "runtime/RuntimeDesktop.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavix::runtime {

// What one look at a capture made of a next-update call.
struct CaptureLook {
  std::optional<ComputerUseIPCAppshotUpdateEnvelope> reply; // the call is answered with it
  std::optional<RuntimeError> error;                        // the call fails with it
  // Neither: nothing is due yet, and the call goes on waiting.
  bool waits() const { return !reply && !error; }
};

class CaptureUpdates {
public:
  using Clock = std::chrono::steady_clock;

  static constexpr const char *snapshot = "snapshot";
  static constexpr const char *frame = "frame";
  static constexpr const char *timedOut = "timeout";
  static constexpr const char *cancelled = "cancelled";

  // The codes of a start's `error`, when its capture cannot begin.
  static constexpr const char *invalidRequestId = "invalid_request_id";           // requestId is empty
  static constexpr const char *captureAlreadyRunning = "capture_already_running"; // the requestId captures already
  static constexpr const char *tooManyCaptures = "too_many_captures";             // maxCaptures are running
  static constexpr const char *appNotFound = "app_not_found";                     // no app with that bundle id
  static constexpr const char *windowNotFound = "window_not_found";               // the app has no such window

  // How many captures may run at once: each holds little, but one that is never
  // cancelled stays until the runtime ends.
  static constexpr size_t maxCaptures = 32;

  // A next-update waits this long when its request does not say; it may ask for less,
  // down to no wait at all, but not for more than `longestWait`, which keeps every call
  // well inside the 120 seconds a client gives a request.
  static constexpr std::chrono::milliseconds defaultWait{30000};
  static constexpr std::chrono::milliseconds longestWait{60000};

  // The wait of a next-update whose `timeoutMs` is the one given: absent, the default;
  // negative, none; at most the longest.
  static std::chrono::milliseconds waitFor(std::optional<int64_t> timeoutMs);

  // The runtime error of a next-update naming a capture that is not running.
  static RuntimeError unknownCapture(std::string_view requestId);

  // The reply to a next-update of the capture `requestId` whose update carries only its
  // type: "timeout" or "cancelled".
  static ComputerUseIPCAppshotUpdateEnvelope envelope(const std::string &requestId, const char *type);

  // One look at the capture `requestId` for a next-update that may wait until `deadline`:
  // the due update, else "timeout" once `now` has reached the deadline, else the call
  // waits on. A call whose earlier look found the capture running (`again`) and now finds
  // it gone answers "cancelled", since only a cancel ends a capture; a first look that
  // finds no capture answers the unknown capture's error (errn -1728).
  static CaptureLook look(RuntimeDesktop &desktop, const std::string &requestId, Clock::time_point deadline,
                          Clock::time_point now, bool again);
};

} // namespace tavix::runtime
