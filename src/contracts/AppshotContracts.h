#pragma once
// The records of an appshot: the host asks the runtime app to capture the frontmost
// application for an on-screen animation, waits for the capture's updates, and cancels
// it. A capture is named by the caller's `requestId`. The update kinds and error codes
// are the runtime app's own; the bridge passes them through as text.

#include "contracts/ComputerUseRequests.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tavix {

struct ComputerUseIPCAppshotRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  using R = ComputerUseIPCAppshotRect;
  static constexpr auto fields = std::make_tuple(field("x", &R::x), field("y", &R::y),
                                                 field("width", &R::width), field("height", &R::height));
  TAVIX_RECORD_JSON(ComputerUseIPCAppshotRect);
};

// A display as the host sees it.
struct ComputerUseIPCAppshotDisplay {
  std::optional<int64_t> id;
  std::optional<double> scaleFactor;
  std::optional<ComputerUseIPCAppshotRect> bounds;
  std::optional<ComputerUseIPCAppshotRect> workArea;
  using R = ComputerUseIPCAppshotDisplay;
  static constexpr auto fields = std::make_tuple(field("id", &R::id), field("scaleFactor", &R::scaleFactor),
                                                 field("bounds", &R::bounds), field("workArea", &R::workArea));
  TAVIX_RECORD_JSON(ComputerUseIPCAppshotDisplay);
};

// Where the animation lands in the host's window, and how that place looks.
struct ComputerUseIPCAppshotAnimationTarget {
  std::optional<ComputerUseIPCAppshotDisplay> zumexDisplay; // the display showing the host window
  std::optional<std::string> destinationBackgroundColor;
  std::optional<double> destinationCornerRadius;
  std::optional<ComputerUseIPCAppshotRect> destinationFrame;
  std::optional<std::string> destinationPrimaryTextColor;
  using R = ComputerUseIPCAppshotAnimationTarget;
  static constexpr auto fields = std::make_tuple(
      field("zumexDisplay", &R::zumexDisplay), field("destinationBackgroundColor", &R::destinationBackgroundColor),
      field("destinationCornerRadius", &R::destinationCornerRadius),
      field("destinationFrame", &R::destinationFrame),
      field("destinationPrimaryTextColor", &R::destinationPrimaryTextColor));
  TAVIX_RECORD_JSON(ComputerUseIPCAppshotAnimationTarget);
};

// The application (and window) being captured.
struct ComputerUseIPCAppshotTarget {
  std::string bundleIdentifier;
  std::string name;
  std::optional<std::string> iconSmallDataURL;
  std::optional<std::string> windowTitle;
  using R = ComputerUseIPCAppshotTarget;
  static constexpr auto fields =
      std::make_tuple(field("bundleIdentifier", &R::bundleIdentifier), field("name", &R::name),
                      field("iconSmallDataURL", &R::iconSmallDataURL), field("windowTitle", &R::windowTitle));
  TAVIX_RECORD_JSON(ComputerUseIPCAppshotTarget);
};

struct ComputerUseIPCAppshotError {
  std::string code;
  std::string message;
  using R = ComputerUseIPCAppshotError;
  static constexpr auto fields = std::make_tuple(field("code", &R::code), field("message", &R::message));
  TAVIX_RECORD_JSON(ComputerUseIPCAppshotError);
};

struct ComputerUseIPCAppStartFrontmostCaptureResponse {
  std::optional<ComputerUseIPCAppshotTarget> target;
  std::optional<double> transitionSnapshotHeight;
  std::optional<ComputerUseIPCAppshotError> error;
  using R = ComputerUseIPCAppStartFrontmostCaptureResponse;
  static constexpr auto fields =
      std::make_tuple(field("target", &R::target), field("transitionSnapshotHeight", &R::transitionSnapshotHeight),
                      field("error", &R::error));
  TAVIX_RECORD_JSON(ComputerUseIPCAppStartFrontmostCaptureResponse);
};

// One step of a capture; `type` says which, the other fields carry what that step has.
struct ComputerUseIPCAppshotCaptureUpdate {
  std::string type;
  std::optional<ComputerUseIPCAppshotTarget> target;
  std::optional<std::string> text;
  std::optional<std::string> screenshotDataURL;
  std::optional<std::string> transitionSnapshotDataURL;
  std::optional<std::string> error;
  using R = ComputerUseIPCAppshotCaptureUpdate;
  static constexpr auto fields = std::make_tuple(
      field("type", &R::type), field("target", &R::target), field("text", &R::text),
      field("screenshotDataURL", &R::screenshotDataURL),
      field("transitionSnapshotDataURL", &R::transitionSnapshotDataURL), field("error", &R::error));
  TAVIX_RECORD_JSON(ComputerUseIPCAppshotCaptureUpdate);
};

struct ComputerUseIPCAppshotUpdateEnvelope {
  std::string requestId;
  ComputerUseIPCAppshotCaptureUpdate update;
  using R = ComputerUseIPCAppshotUpdateEnvelope;
  static constexpr auto fields = std::make_tuple(field("requestId", &R::requestId), field("update", &R::update));
  TAVIX_RECORD_JSON(ComputerUseIPCAppshotUpdateEnvelope);
};

// ---- Requests ----

struct ComputerUseIPCAppStartFrontmostCaptureRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCAppStartFrontmostCaptureRequest";
  using Response = ComputerUseIPCAppStartFrontmostCaptureResponse;
  std::string requestId; // chosen by the caller; names the capture from now on
  std::optional<std::string> bundleIdentifier;
  std::optional<uint32_t> windowID;
  std::optional<ComputerUseIPCAppshotAnimationTarget> animationTarget;
  using R = ComputerUseIPCAppStartFrontmostCaptureRequest;
  static constexpr auto fields =
      std::make_tuple(field("requestId", &R::requestId), field("bundleIdentifier", &R::bundleIdentifier),
                      field("windowID", &R::windowID), field("animationTarget", &R::animationTarget));
  TAVIX_RECORD_JSON(ComputerUseIPCAppStartFrontmostCaptureRequest);
};

struct ComputerUseIPCAppNextCaptureUpdateRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCAppNextCaptureUpdateRequest";
  using Response = ComputerUseIPCAppshotUpdateEnvelope;
  std::string requestId;
  std::optional<int64_t> timeoutMs; // how long the runtime app may wait for an update
  using R = ComputerUseIPCAppNextCaptureUpdateRequest;
  static constexpr auto fields = std::make_tuple(field("requestId", &R::requestId), field("timeoutMs", &R::timeoutMs));
  TAVIX_RECORD_JSON(ComputerUseIPCAppNextCaptureUpdateRequest);
};

struct ComputerUseIPCAppCancelCaptureRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCAppCancelCaptureRequest";
  using Response = ComputerUseIPCEmptyResponse;
  std::string requestId;
  static constexpr auto fields = std::make_tuple(field("requestId", &ComputerUseIPCAppCancelCaptureRequest::requestId));
  TAVIX_RECORD_JSON(ComputerUseIPCAppCancelCaptureRequest);
};

} // namespace tavix
