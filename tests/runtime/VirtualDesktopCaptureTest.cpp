// Appshot captures of the virtual desktop, looked at as the service looks at them: which
// app and window a start targets and the capture's own errors, the frontmost app, the
// updates that come due (the window's picture first, then one after each change), how long
// a next-update waits at each boundary of its timeoutMs, unknown and cancelled captures,
// and the change listener the service waits on. Time is passed in, never slept.

#include "runtime/CaptureUpdates.h"
#include "runtime/DecodedPng.h"
#include "runtime/VirtualAppCatalogue.h"
#include "runtime/VirtualDesktop.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <vector>

namespace tavix::test {
namespace {

using namespace runtime;
using namespace std::chrono_literals;
using Clock = CaptureUpdates::Clock;

constexpr const char *notes = "com.tavix.sim.notes";
constexpr const char *calculator = "com.tavix.sim.calculator";
constexpr const char *files = "com.tavix.sim.files";

ComputerUseIPCAppStartFrontmostCaptureRequest start(std::string id, std::optional<std::string> bundle = std::nullopt,
                                                    std::optional<uint32_t> window = std::nullopt) {
  return {.requestId = std::move(id),
          .bundleIdentifier = std::move(bundle),
          .windowID = window,
          .animationTarget = std::nullopt};
}

ComputerUseIPCAppPerformActionRequest action(std::string app, ComputerUseIPCAction what) {
  ComputerUseIPCAppPerformActionRequest request;
  request.app = std::move(app);
  request.action = std::move(what);
  return request;
}

ComputerUseIPCAction click(int64_t index) { return {ClickParams{index, std::nullopt, std::nullopt, 1, 0}}; }
ComputerUseIPCAction setValue(int64_t index, std::string value) { return {SetValueParams{index, std::move(value)}}; }

class VirtualDesktopCaptureTest : public testing::Test {
protected:
  static constexpr int width = 800, height = 600;

  static VirtualDesktopOptions options() {
    VirtualDesktopOptions made;
    made.screenWidth = width;
    made.screenHeight = height;
    return made;
  }

  ComputerUseIPCAppStartFrontmostCaptureResponse started(const ComputerUseIPCAppStartFrontmostCaptureRequest &request) {
    auto response = desktop.startCapture(request);
    if (!response)
      throw std::runtime_error(response.error().errs);
    return *response;
  }

  // A look whose deadline has passed: the due update, or "timeout".
  CaptureLook lookNow(const std::string &id, bool again = false) {
    return CaptureUpdates::look(desktop, id, received, received, again);
  }

  // The type of the update a look answered, or "" when the call waits on.
  static std::string typeOf(const CaptureLook &look) {
    EXPECT_FALSE(look.error.has_value()) << look.error->errs;
    return look.reply ? look.reply->update.type : "";
  }

  void act(const std::string &app, ComputerUseIPCAction what) { ASSERT_TRUE(desktop.performAction(action(app, std::move(what)))); }

  std::string frontmostTarget(const std::string &id) {
    const auto response = started(start(id));
    return response.target ? response.target->bundleIdentifier : "";
  }

  VirtualDesktop desktop{options()};
  const Clock::time_point received = Clock::time_point(1h);
};

// ---- starting ----

TEST_F(VirtualDesktopCaptureTest, AStartTargetsTheNamedOrFrontmostAppAndItsWindowOrSaysWhyNot) {
  struct Row {
    const char *name;
    ComputerUseIPCAppStartFrontmostCaptureRequest request;
    std::string bundle; // the target's, when the capture begins
    std::string code;   // the error's, when it does not
    std::string message;
  };
  const Row rows[] = {
      {"the frontmost app, Notes at first", start("a"), notes, "", ""},
      {"an app by bundle identifier", start("b", calculator), calculator, "", ""},
      {"a bundle identifier in another case", start("c", "COM.TAVIX.SIM.FILES"), files, "", ""},
      {"the app's window", start("d", notes, VirtualAppCatalogue::notesWindowID), notes, "", ""},
      {"the frontmost app's window", start("e", std::nullopt, VirtualAppCatalogue::notesWindowID), notes, "", ""},
      {"the window id after the app's", start("f", notes, VirtualAppCatalogue::notesWindowID + 1), "", "window_not_found",
       "Notes has no window 1002; its window is 1001"},
      {"the window id before the app's", start("g", notes, VirtualAppCatalogue::notesWindowID - 1), "", "window_not_found",
       "Notes has no window 1000; its window is 1001"},
      {"window 0", start("h", files, 0), "", "window_not_found", "Files has no window 0; its window is 1003"},
      {"the largest window id", start("i", files, UINT32_MAX), "", "window_not_found",
       "Files has no window 4294967295; its window is 1003"},
      {"another app's window, with the frontmost app", start("j", std::nullopt, VirtualAppCatalogue::filesWindowID), "",
       "window_not_found", "Notes has no window 1003; its window is 1001"},
      {"no app has the bundle identifier", start("k", "com.tavix.sim.paint"), "", "app_not_found",
       "No running app has the bundle identifier \"com.tavix.sim.paint\""},
      {"an app's name is not its bundle identifier", start("l", "Notes"), "", "app_not_found",
       "No running app has the bundle identifier \"Notes\""},
      {"an empty bundle identifier", start("m", ""), "", "app_not_found",
       "No running app has the bundle identifier \"\""},
      {"an empty requestId", start("", notes), "", "invalid_request_id", "A capture needs a requestId that is not empty"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const auto response = started(row.request);
    // A capture runs exactly when the start succeeded.
    const bool running = desktop.takeCaptureUpdate(row.request.requestId).has_value();
    if (row.code.empty()) {
      EXPECT_FALSE(response.error.has_value()) << response.error->message;
      ASSERT_TRUE(response.target.has_value());
      EXPECT_EQ(response.target->bundleIdentifier, row.bundle);
      EXPECT_EQ(response.transitionSnapshotHeight, height);
      EXPECT_TRUE(running);
    } else {
      ASSERT_TRUE(response.error.has_value());
      EXPECT_EQ(response.error->code, row.code);
      EXPECT_EQ(response.error->message, row.message);
      EXPECT_FALSE(response.target.has_value());
      EXPECT_FALSE(response.transitionSnapshotHeight.has_value());
      EXPECT_FALSE(running);
    }
  }
}

TEST_F(VirtualDesktopCaptureTest, TheTargetNamesTheAppItsWindowAndASmallIcon) {
  struct Row {
    const char *bundle;
    const char *name;
    const char *windowTitle;
  };
  const Row rows[] = {{notes, "Notes", "Notes - Untitled"},
                      {calculator, "Calculator", "Calculator"},
                      {files, "Files", "Files - Documents"}};
  std::vector<std::string> icons;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const auto target = started(start(row.name, row.bundle)).target.value();
    EXPECT_EQ(target.bundleIdentifier, row.bundle);
    EXPECT_EQ(target.name, row.name);
    EXPECT_EQ(target.windowTitle, row.windowTitle);
    const DecodedPng icon = decodePngDataURL(target.iconSmallDataURL.value_or(""));
    ASSERT_EQ(icon.problem, "");
    EXPECT_EQ(icon.width, 16u);
    EXPECT_EQ(icon.height, 16u);
    // The app's colour in the corner, the white letter in the middle.
    EXPECT_NE(icon.pixel(0, 0), 0xFFFFFFu);
    size_t white = 0;
    for (uint32_t y = 0; y < icon.height; ++y)
      for (uint32_t x = 0; x < icon.width; ++x)
        white += icon.pixel(x, y) == 0xFFFFFFu;
    EXPECT_GT(white, 10u);
    icons.push_back(*target.iconSmallDataURL);
  }
  EXPECT_NE(icons[0], icons[1]);
  EXPECT_NE(icons[1], icons[2]);
}

TEST_F(VirtualDesktopCaptureTest, TheFrontmostAppIsTheOneAnActionOrAStartLastNamed) {
  struct Row {
    const char *name;
    std::function<void()> step;
    const char *frontmost;
    const char *listed; // its line in list_apps
  };
  const char *notesLine = "\n- Notes (com.tavix.sim.notes, window 1001), frontmost";
  const char *calculatorLine = "\n- Calculator (com.tavix.sim.calculator, window 1002), frontmost";
  const char *filesLine = "\n- Files (com.tavix.sim.files, window 1003), frontmost";
  const Row rows[] = {
      {"at first", [] {}, notes, notesLine},
      {"an action on Calculator", [&] { act("Calculator", click(2)); }, calculator, calculatorLine},
      {"an action on an unknown app", [&] { act("Paint", click(1)); }, calculator, calculatorLine},
      {"a start of Files", [&] { ASSERT_TRUE(desktop.startApp({"Files"})); }, files, filesLine},
      {"a start of an unknown app", [&] { ASSERT_TRUE(desktop.startApp({"Paint"})); }, files, filesLine},
      {"a failed action on Notes", [&] { act("notes", click(999)); }, notes, notesLine},
      {"a state request", [&] { ASSERT_TRUE(desktop.getAppState({"Files", std::nullopt, std::nullopt, std::nullopt})); },
       notes, notesLine},
  };
  int step = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    row.step();
    EXPECT_EQ(frontmostTarget("front-" + std::to_string(++step)), row.frontmost);
    const std::string list = *desktop.listApps({})->content.at(0).text;
    EXPECT_NE(list.find(row.listed), std::string::npos) << list;
    EXPECT_EQ(list.find("frontmost"), list.rfind("frontmost")) << list;
  }
}

TEST_F(VirtualDesktopCaptureTest, ARequestIdCapturesOnceUntilCancelled) {
  EXPECT_FALSE(started(start("same", notes)).error.has_value());
  const auto again = started(start("same", files));
  ASSERT_TRUE(again.error.has_value());
  EXPECT_EQ(again.error->code, "capture_already_running");
  EXPECT_EQ(again.error->message, "A capture is already running with requestId \"same\"");
  // The first capture goes on as it was.
  EXPECT_EQ(lookNow("same").reply.value().update.target.value().bundleIdentifier, notes);
  EXPECT_TRUE(desktop.cancelCapture("same"));
  EXPECT_FALSE(started(start("same", files)).error.has_value());
  EXPECT_EQ(lookNow("same").reply.value().update.target.value().bundleIdentifier, files);
}

TEST_F(VirtualDesktopCaptureTest, AtMost32CapturesRunAtOnce) {
  ASSERT_EQ(CaptureUpdates::maxCaptures, 32u);
  for (size_t number = 1; number <= CaptureUpdates::maxCaptures; ++number)
    ASSERT_FALSE(started(start("capture-" + std::to_string(number))).error.has_value()) << number;
  const auto refused = started(start("capture-33"));
  ASSERT_TRUE(refused.error.has_value());
  EXPECT_EQ(refused.error->code, "too_many_captures");
  EXPECT_EQ(refused.error->message, "32 captures are running; cancel one first");
  EXPECT_TRUE(desktop.cancelCapture("capture-7"));
  EXPECT_FALSE(started(start("capture-33")).error.has_value());
}

// ---- updates ----

TEST_F(VirtualDesktopCaptureTest, TheWindowsPictureComesFirstThenOneAfterEachChange) {
  started(start("updates", notes));
  struct Row {
    const char *name;
    std::function<void()> step; // before the look
    std::string type;           // "" when nothing is due
    std::string windowTitle;
  };
  const Row rows[] = {
      {"the first look", [] {}, "snapshot", "Notes - Untitled"},
      {"nothing changed", [] {}, "", ""},
      {"a state request changes nothing",
       [&] { ASSERT_TRUE(desktop.getAppState({"Notes", std::nullopt, std::nullopt, std::nullopt})); }, "", ""},
      {"a title typed and saved: one update for both",
       [&] {
         act("Notes", setValue(1, "Plan"));
         act("Notes", click(3));
       },
       "frame", "Notes - Plan"},
      {"after that frame", [] {}, "", ""},
      {"a change in another app", [&] { act("Calculator", click(2)); }, "frame", "Notes - Plan"},
      {"a failed action counts as a change", [&] { act("Notes", click(999)); }, "frame", "Notes - Plan"},
      {"and then nothing", [] {}, "", ""},
  };
  std::vector<std::string> pictures;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    row.step();
    const auto look = CaptureUpdates::look(desktop, "updates", received + 1s, received, false);
    ASSERT_EQ(typeOf(look), row.type);
    if (row.type.empty())
      continue;
    const auto &update = look.reply->update;
    EXPECT_EQ(look.reply->requestId, "updates");
    ASSERT_TRUE(update.target.has_value());
    EXPECT_EQ(update.target->bundleIdentifier, notes);
    EXPECT_EQ(update.target->windowTitle, row.windowTitle);
    const bool first = row.type == "snapshot";
    EXPECT_EQ(update.transitionSnapshotDataURL.has_value(), first);
    EXPECT_EQ(update.screenshotDataURL.has_value(), !first);
    const std::string &picture = first ? *update.transitionSnapshotDataURL : *update.screenshotDataURL;
    const DecodedPng png = decodePngDataURL(picture);
    ASSERT_EQ(png.problem, "");
    EXPECT_EQ(png.width, static_cast<uint32_t>(width));
    EXPECT_EQ(png.height, static_cast<uint32_t>(height));
    pictures.push_back(picture);
  }
  // The saved title shows in the first frame.
  ASSERT_GE(pictures.size(), 2u);
  EXPECT_NE(pictures[0], pictures[1]);
}

TEST_F(VirtualDesktopCaptureTest, ANextUpdateWaitsUntilItsClampedDeadline) {
  ASSERT_EQ(CaptureUpdates::defaultWait, 30000ms);
  ASSERT_EQ(CaptureUpdates::longestWait, 60000ms);
  started(start("waits"));
  ASSERT_EQ(typeOf(lookNow("waits")), "snapshot");
  struct Row {
    const char *name;
    std::optional<int64_t> timeoutMs;
    std::chrono::milliseconds elapsed;
    bool timedOut;
  };
  const Row rows[] = {
      {"absent, just before the default", std::nullopt, 29999ms, false},
      {"absent, at the default", std::nullopt, 30000ms, true},
      {"0 answers at once", 0, 0ms, true},
      {"-1 clamps to 0", -1, 0ms, true},
      {"the most negative clamps to 0", INT64_MIN, 0ms, true},
      {"250, just before", 250, 249ms, false},
      {"250, at it", 250, 250ms, true},
      {"the longest, just before", 60000, 59999ms, false},
      {"the longest, at it", 60000, 60000ms, true},
      {"one past the longest, just before the longest", 60001, 59999ms, false},
      {"one past the longest, at the longest", 60001, 60000ms, true},
      {"the largest, at the longest", INT64_MAX, 60000ms, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const auto deadline = received + CaptureUpdates::waitFor(row.timeoutMs);
    const auto look = CaptureUpdates::look(desktop, "waits", deadline, received + row.elapsed, false);
    EXPECT_EQ(typeOf(look), row.timedOut ? "timeout" : "");
    if (row.timedOut) {
      EXPECT_EQ(look.reply->requestId, "waits");
      EXPECT_EQ(look.reply->update, (ComputerUseIPCAppshotCaptureUpdate{"timeout", {}, {}, {}, {}, {}}));
    }
  }
  // A due update is answered however late the look.
  act("Notes", click(1));
  EXPECT_EQ(typeOf(CaptureUpdates::look(desktop, "waits", received, received + 1h, false)), "frame");
}

// ---- unknown and cancelled captures ----

TEST_F(VirtualDesktopCaptureTest, UnknownAndCancelledCaptures) {
  started(start("cancelled"));
  started(start("kept"));
  struct Row {
    const char *name;
    std::string id;
    bool again; // an earlier look of the call found the capture running
    std::string type; // the answer, or "" for the unknown capture's error
  };
  EXPECT_TRUE(desktop.cancelCapture("cancelled"));
  const Row rows[] = {
      {"never started", "ghost", false, ""},
      {"cancelled, at a call's first look", "cancelled", false, ""},
      {"cancelled while a call waited", "cancelled", true, "cancelled"},
      {"an empty requestId", "", false, ""},
      {"another capture goes on", "kept", false, "snapshot"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const auto look = lookNow(row.id, row.again);
    if (row.type.empty()) {
      ASSERT_TRUE(look.error.has_value());
      EXPECT_EQ(*look.error, (RuntimeError{-1728, "No capture is running with requestId \"" + row.id + "\""}));
      EXPECT_FALSE(look.reply.has_value());
    } else {
      EXPECT_EQ(typeOf(look), row.type);
    }
  }
  // Cancelling is idempotent: only the first cancel of a running capture ends something.
  EXPECT_FALSE(desktop.cancelCapture("cancelled"));
  EXPECT_FALSE(desktop.cancelCapture("ghost"));
  EXPECT_TRUE(desktop.cancelCapture("kept"));
  EXPECT_FALSE(desktop.cancelCapture("kept"));
}

// ---- the change listener ----

TEST_F(VirtualDesktopCaptureTest, TheChangeListenerHearsEachChangeAfterTheLockIsLetGo) {
  std::vector<uint64_t> heard;
  // Reading the version from inside the listener would deadlock under the desktop's lock.
  desktop.setChangeListener([&] { heard.push_back(desktop.stateVersion()); });
  struct Row {
    const char *name;
    std::function<void()> step;
    size_t calls; // how many the listener has heard after the step
  };
  const Row rows[] = {
      {"an action", [&] { act("Notes", click(1)); }, 1},
      {"a failed action", [&] { act("Notes", click(999)); }, 2},
      {"an action on an unknown app", [&] { act("Paint", click(1)); }, 2},
      {"a state request", [&] { ASSERT_TRUE(desktop.getAppState({"Notes", std::nullopt, std::nullopt, std::nullopt})); },
       2},
      {"a capture started, looked at and cancelled",
       [&] {
         started(start("listened"));
         lookNow("listened");
         desktop.cancelCapture("listened");
       },
       2},
      {"a start of an app", [&] { ASSERT_TRUE(desktop.startApp({"Files"})); }, 2},
      {"another action", [&] { act("Files", click(1)); }, 3},
      {"an action once the listener is removed",
       [&] {
         desktop.setChangeListener({});
         act("Files", click(1));
       },
       3},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    row.step();
    EXPECT_EQ(heard.size(), row.calls);
  }
  // Each call saw the version its change made.
  EXPECT_EQ(heard, (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(desktop.stateVersion(), 4u);
}

} // namespace
} // namespace tavix::test
