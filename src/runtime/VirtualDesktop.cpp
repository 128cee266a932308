#include "runtime/VirtualDesktop.h"

#include "runtime/AppIcon.h"
#include "runtime/AppStateText.h"
#include "runtime/Base64Encoder.h"
#include "runtime/CaptureUpdates.h"
#include "runtime/VirtualAppActions.h"
#include "runtime/VirtualAppCatalogue.h"
#include "runtime/WindowRenderer.h"

#include <algorithm>
#include <cctype>
#include <unistd.h>

namespace tavix::runtime {
namespace {

ComputerUseIPCToolContentBlock textBlock(std::string text) { return {"text", std::move(text), {}, {}}; }

ComputerUseIPCToolContentBlock imageBlock(std::string base64) { return {"image", {}, std::move(base64), "image/png"}; }

bool sameName(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) ==
                                                std::tolower(static_cast<unsigned char>(b)); });
}

ComputerUseIPCToolResultResponse errorResult(std::string text, ComputerUseFailure failure) {
  return {{textBlock(std::move(text))}, true, std::move(failure)};
}

std::string pngDataURL(std::string_view base64) { return "data:image/png;base64," + std::string(base64); }

ComputerUseIPCAppStartFrontmostCaptureResponse captureRefused(const char *code, std::string message) {
  return {.target = std::nullopt,
          .transitionSnapshotHeight = std::nullopt,
          .error = ComputerUseIPCAppshotError{code, std::move(message)}};
}

} // namespace

VirtualDesktop::VirtualDesktop(VirtualDesktopOptions options)
    : options_(std::move(options)), encoder_(options_.pngLevel),
      apps_(VirtualAppCatalogue::makeApps(options_.screenWidth, options_.screenHeight)) {
  for (const auto &app : apps_)
    icons_[app.bundleID()] = pngDataURL(base64Encode(encoder_.encode(AppIcon::render(app))));
}

RuntimeResult<ComputerUseIPCHealthResponse> VirtualDesktop::health(const ComputerUseIPCHealthRequest &request,
                                                                   const RuntimeCaller &caller) {
  std::lock_guard lock(mutex_);
  const auto now = options_.now();
  if (request.refreshClientActivity.value_or(false))
    clientActivity_[caller.clientID] = now;
  const auto window = std::chrono::duration_cast<std::chrono::system_clock::duration>(
      std::chrono::duration<double>(heartbeatTimeoutSeconds));
  const auto active = std::count_if(clientActivity_.begin(), clientActivity_.end(),
                                    [&](const auto &client) { return now - client.second <= window; });
  return ComputerUseIPCHealthResponse{options_.generationID, static_cast<int32_t>(::getpid()),
                                      options_.bundleIdentifier, options_.bundlePath, options_.healthy,
                                      static_cast<int64_t>(active), heartbeatTimeoutSeconds};
}

RuntimeResult<ComputerUseIPCToolResultResponse> VirtualDesktop::listApps(const ComputerUseIPCListAppsRequest &) {
  std::lock_guard lock(mutex_);
  std::string text = "Running apps:";
  for (size_t at = 0; at < apps_.size(); ++at) {
    const VirtualApp &app = apps_[at];
    text += "\n- " + app.name() + " (" + app.bundleID() + ", window " + std::to_string(app.windowID()) + ")";
    if (at == frontmost_)
      text += ", frontmost";
  }
  return ComputerUseIPCToolResultResponse{{textBlock(std::move(text))}, false, std::nullopt};
}

RuntimeResult<ComputerUseIPCToolResultResponse>
VirtualDesktop::getAppState(const ComputerUseIPCAppGetStateRequest &request) {
  std::lock_guard lock(mutex_);
  VirtualApp *app = findApp(request.app);
  if (app == nullptr)
    return appNotFound(request.app);
  const auto observation = request.observation.value_or(ComputerUseIPCObservationKind::both);
  ComputerUseIPCToolResultResponse response{{}, false, std::nullopt};
  if (observation != ComputerUseIPCObservationKind::screenshot)
    response.content.push_back(textBlock(AppStateText::render(*app)));
  if (observation != ComputerUseIPCObservationKind::state)
    response.content.push_back(imageBlock(screenshot(*app)));
  return response;
}

RuntimeResult<ComputerUseIPCToolResultResponse>
VirtualDesktop::performAction(const ComputerUseIPCAppActionFields &request) {
  std::function<void()> changed;
  auto response = [&] {
    std::lock_guard lock(mutex_);
    VirtualApp *app = findApp(request.app);
    if (app == nullptr)
      return appNotFound(request.app);
    frontmost_ = static_cast<size_t>(app - apps_.data());
    auto outcome = VirtualAppActions::perform(*app, request.action);
    // A failed action may have changed nothing, but counting it as a change costs only a
    // redrawn screenshot.
    ++version_;
    changed = changeListener_;
    if (!outcome)
      return errorResult(outcome.error().message, outcome.error().failure);
    recorder_.recordEvent(options_.now());
    return ComputerUseIPCToolResultResponse{{textBlock(std::move(*outcome)), textBlock(AppStateText::render(*app))},
                                            false, std::nullopt};
  }();
  if (changed)
    changed();
  return response;
}

RuntimeResult<ComputerUseIPCEmptyResponse> VirtualDesktop::startApp(const ComputerUseIPCAppStartRequest &request) {
  std::lock_guard lock(mutex_);
  if (const VirtualApp *app = findApp(request.app))
    frontmost_ = static_cast<size_t>(app - apps_.data());
  return ComputerUseIPCEmptyResponse{};
}

RuntimeResult<ComputerUseIPCEmptyResponse> VirtualDesktop::modifyApp(const ComputerUseIPCAppModifyRequest &) {
  return ComputerUseIPCEmptyResponse{};
}

RuntimeResult<ComputerUseIPCEmptyResponse> VirtualDesktop::reportUsage(const ComputerUseIPCAppUsageRequest &) {
  return ComputerUseIPCEmptyResponse{};
}

RuntimeResult<ComputerUseIPCEmptyResponse>
VirtualDesktop::observeHostSession(const ComputerUseIPCHostSessionObserveRequest &request) {
  std::lock_guard lock(mutex_);
  lastObservedContext_ = request.context;
  return ComputerUseIPCEmptyResponse{};
}

RuntimeResult<ComputerUseIPCEventStreamSessionStatus>
VirtualDesktop::startEventStream(const ComputerUseIPCEventStreamStartRequest &request) {
  std::lock_guard lock(mutex_);
  return recorder_.start(request, options_.now());
}

RuntimeResult<ComputerUseIPCEventStreamSessionStatus>
VirtualDesktop::eventStreamStatus(const ComputerUseIPCEventStreamStatusRequest &) {
  std::lock_guard lock(mutex_);
  return recorder_.status(options_.now());
}

RuntimeResult<ComputerUseIPCEventStreamSessionStatus>
VirtualDesktop::stopEventStream(const ComputerUseIPCEventStreamStopRequest &request) {
  std::lock_guard lock(mutex_);
  return recorder_.stop(request.reason, options_.now());
}

RuntimeResult<ComputerUseIPCAppStartFrontmostCaptureResponse>
VirtualDesktop::startCapture(const ComputerUseIPCAppStartFrontmostCaptureRequest &request) {
  std::lock_guard lock(mutex_);
  const std::string &id = request.requestId;
  if (id.empty())
    return captureRefused(CaptureUpdates::invalidRequestId, "A capture needs a requestId that is not empty");
  if (captures_.contains(id))
    return captureRefused(CaptureUpdates::captureAlreadyRunning, "A capture is already running with requestId \"" + id + "\"");
  if (captures_.size() >= CaptureUpdates::maxCaptures)
    return captureRefused(CaptureUpdates::tooManyCaptures, std::to_string(CaptureUpdates::maxCaptures) +
                                                               " captures are running; cancel one first");
  const VirtualApp *app = request.bundleIdentifier ? findBundle(*request.bundleIdentifier) : &apps_[frontmost_];
  if (app == nullptr)
    return captureRefused(CaptureUpdates::appNotFound,
                          "No running app has the bundle identifier \"" + *request.bundleIdentifier + "\"");
  if (request.windowID && *request.windowID != app->windowID())
    return captureRefused(CaptureUpdates::windowNotFound, app->name() + " has no window " +
                                                              std::to_string(*request.windowID) + "; its window is " +
                                                              std::to_string(app->windowID()));
  captures_.emplace(id, Capture{app->bundleID(), false, version_});
  return ComputerUseIPCAppStartFrontmostCaptureResponse{.target = captureTarget(*app),
                                                        .transitionSnapshotHeight = static_cast<double>(app->height()),
                                                        .error = std::nullopt};
}

RuntimeResult<std::optional<ComputerUseIPCAppshotCaptureUpdate>>
VirtualDesktop::takeCaptureUpdate(const std::string &requestId) {
  std::lock_guard lock(mutex_);
  const auto found = captures_.find(requestId);
  if (found == captures_.end())
    return tl::unexpected(CaptureUpdates::unknownCapture(requestId));
  Capture &capture = found->second;
  if (capture.snapshotTaken && capture.version == version_)
    return std::nullopt;
  // Apps never quit, so the captured one is still there.
  const VirtualApp &app = *findBundle(capture.bundleID);
  ComputerUseIPCAppshotCaptureUpdate update{.type = capture.snapshotTaken ? CaptureUpdates::frame : CaptureUpdates::snapshot,
                                            .target = captureTarget(app),
                                            .text = std::nullopt,
                                            .screenshotDataURL = std::nullopt,
                                            .transitionSnapshotDataURL = std::nullopt,
                                            .error = std::nullopt};
  (capture.snapshotTaken ? update.screenshotDataURL : update.transitionSnapshotDataURL) = pngDataURL(screenshot(app));
  capture.snapshotTaken = true;
  capture.version = version_;
  return update;
}

bool VirtualDesktop::cancelCapture(const std::string &requestId) {
  std::lock_guard lock(mutex_);
  return captures_.erase(requestId) > 0;
}

uint64_t VirtualDesktop::stateVersion() const {
  std::lock_guard lock(mutex_);
  return version_;
}

void VirtualDesktop::setChangeListener(std::function<void()> changed) {
  std::lock_guard lock(mutex_);
  changeListener_ = std::move(changed);
}

std::optional<ComputerUseHostTurnContext> VirtualDesktop::lastObservedContext() const {
  std::lock_guard lock(mutex_);
  return lastObservedContext_;
}

uint64_t VirtualDesktop::screenshotsEncoded() const {
  std::lock_guard lock(mutex_);
  return screenshotsEncoded_;
}

// An app by its name or bundle identifier, either in any case.
VirtualApp *VirtualDesktop::findApp(const std::string &query) {
  for (auto &app : apps_)
    if (sameName(app.name(), query) || sameName(app.bundleID(), query))
      return &app;
  return nullptr;
}

VirtualApp *VirtualDesktop::findBundle(const std::string &bundleID) {
  for (auto &app : apps_)
    if (sameName(app.bundleID(), bundleID))
      return &app;
  return nullptr;
}

ComputerUseIPCAppshotTarget VirtualDesktop::captureTarget(const VirtualApp &app) const {
  return {app.bundleID(), app.name(), icons_.at(app.bundleID()), app.windowTitle()};
}

ComputerUseIPCToolResultResponse VirtualDesktop::appNotFound(const std::string &query) const {
  std::string names;
  for (const auto &app : apps_)
    names += (names.empty() ? "" : ", ") + app.name();
  return errorResult("App not found: \"" + query + "\". The running apps are " + names + ".",
                     ComputerUseFailure{ComputerUseFailure::Kind::appNotFound, query, {}, {}});
}

const std::string &VirtualDesktop::screenshot(const VirtualApp &app) {
  CachedScreenshot &cached = screenshots_[app.bundleID()];
  if (cached.base64.empty() || cached.version != version_) {
    cached.base64 = base64Encode(encoder_.encode(WindowRenderer::render(app)));
    cached.version = version_;
    ++screenshotsEncoded_;
  }
  return cached.base64;
}

} // namespace tavix::runtime
