// The virtual desktop as the service's callers see it: each action changes what the next
// state shows, failures answer error results of a fitting kind and change nothing, the
// screenshot is a real PNG of the window that follows the state and is encoded once per
// change, health counts the clients that keep their activity fresh, and appshot captures
// (which app and window a start targets, the updates that come due, how long a
// next-update waits at each boundary of its timeoutMs, unknown and cancelled captures, the
// change listener the service waits on). Time is passed in, never slept. That the execute
// form of an action acts as the perform form does is the router's test.

#include "runtime/CaptureUpdates.h"
#include "runtime/DecodedPng.h"
#include "runtime/VirtualAppActions.h"
#include "runtime/VirtualAppCatalogue.h"
#include "runtime/VirtualDesktop.h"
#include "runtime/WindowRenderer.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <ranges>
#include <span>

namespace tavix::test {
namespace {

using namespace runtime;
using namespace std::chrono_literals;
using Kind = ComputerUseFailure::Kind;
using Observation = ComputerUseIPCObservationKind;
using Action = ComputerUseIPCAction;
using Result = ComputerUseIPCToolResultResponse;
using Point = std::pair<double, double>;
using Mode = TextSelectionMode;

constexpr const char *notes = "com.tavix.sim.notes", *calculator = "com.tavix.sim.calculator", *files = "com.tavix.sim.files";
constexpr int width = 800, height = 600;

Action click(int64_t index, int64_t count = 1, int64_t button = 0) { return {ClickParams{index, {}, {}, count, button}}; }
Action clickAt(Point at) { return {ClickParams{{}, at.first, at.second, 1, 0}}; }
Action type(std::string text) { return {TypeTextParams{std::move(text)}}; }
Action key(std::string name) { return {PressKeyParams{std::move(name)}}; }
Action setValue(int64_t index, std::string value) { return {SetValueParams{index, std::move(value)}}; }
Action scroll(int64_t index, int64_t direction, double pages = 1) { return {ScrollParams{index, {}, {}, direction, pages}}; }
Action drag(Point from, Point to) { return {DragParams{from.first, from.second, to.first, to.second}}; }
Action selectText(int64_t index, std::string text, Mode mode = Mode::text) { return {TextSelectionParams{index, std::move(text), {}, {}, mode}}; }
Action secondary(int64_t index, std::optional<std::string> name) { return {PerformSecondaryActionParams{index, std::move(name)}}; }
Action paste(std::string text) { return {PasteParams{std::move(text), PasteFormat::text}}; }

ComputerUseIPCAppStartFrontmostCaptureRequest start(std::string id, std::optional<std::string> bundle = {}, std::optional<uint32_t> window = {}) {
  return {std::move(id), std::move(bundle), window, {}};
}
Result act(VirtualDesktop &desktop, const std::string &app, Action action) {
  return *desktop.performAction(ComputerUseIPCAppPerformActionRequest{{app, std::move(action), {}}});
}
Result state(VirtualDesktop &desktop, const std::string &app, std::optional<Observation> observation = Observation::state) {
  return *desktop.getAppState({app, {}, observation, {}});
}
std::string stateText(VirtualDesktop &desktop, const std::string &app) { return *state(desktop, app).content.at(0).text; }
bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

class VirtualDesktopTest : public testing::Test {
protected:
  VirtualDesktopOptions options() { return {.screenWidth = width, .screenHeight = height, .now = [this] { return now; }}; }

  DecodedPng screenshot(const std::string &app) { return decodePng(decodeBase64(*state(desktop, app, Observation::screenshot).content.at(0).data)); }

  // A start's target bundle identifier, or its error as "code: message".
  std::string startOf(const ComputerUseIPCAppStartFrontmostCaptureRequest &request) {
    const auto response = desktop.startCapture(request).value();
    EXPECT_EQ(response.transitionSnapshotHeight, response.target ? std::optional<double>(height) : std::nullopt);
    return response.target ? response.target->bundleIdentifier : response.error.value().code + ": " + response.error->message;
  }

  // A look whose deadline has passed: the due update, or "timeout".
  CaptureLook lookNow(const std::string &id, bool again = false) { return CaptureUpdates::look(desktop, id, received, received, again); }

  // The type of the update a look answered, or "" when the call waits on.
  static std::string typeOf(const CaptureLook &look) {
    EXPECT_FALSE(look.error.has_value()) << look.error->errs;
    return look.reply ? look.reply->update.type : "";
  }

  std::chrono::system_clock::time_point now{std::chrono::seconds(1767225600)}; // 2026-01-01
  const CaptureUpdates::Clock::time_point received{1h};
  VirtualDesktop desktop{options()};
};

// ---- the state text ----

TEST_F(VirtualDesktopTest, StateTextListsTheWindowAndItsElementsInTreeOrder) {
  EXPECT_EQ(stateText(desktop, "Notes"),
            "<app_state>\nApp: Notes\nBundle identifier: com.tavix.sim.notes\nWindow: \"Notes - Untitled\", 800x600 pixels\n"
            "Focused element: none\nElements:\n0 window \"Notes - Untitled\"\n"
            "  1 text field \"Title\" value: \"\" secondary actions: Clear, Select All\n"
            "  2 text area \"Body\" value: \"\" secondary actions: Clear, Select All\n"
            "  3 button \"Save\" secondary actions: Press\n  4 static text \"Status\" value: \"Not saved\"\n"
            "  5 list \"Recent notes\" (shows items 1-4 of 12, scrollable)\n    6 row \"Shopping list\" secondary actions: Select, Delete\n"
            "    7 row \"Meeting notes\" secondary actions: Select, Delete\n    8 row \"Holiday plans\" secondary actions: Select, Delete\n"
            "    9 row \"Book ideas\" secondary actions: Select, Delete\n</app_state>");
  // Apps are found by name or bundle identifier in any case.
  for (const char *query : {"notes", "NOTES", "com.tavix.sim.notes", "COM.TAVIX.SIM.NOTES"})
    EXPECT_EQ(stateText(desktop, query), stateText(desktop, "Notes")) << query;
  EXPECT_TRUE(contains(stateText(desktop, "Calculator"), "\n  1 static text \"Display\" value: \"0\"\n"));
  EXPECT_TRUE(contains(stateText(desktop, files), "\n  9 button \"Open\" secondary actions: Press\n"));
  EXPECT_EQ(desktop.listApps({})->content.at(0).text,
            "Running apps:\n- Notes (com.tavix.sim.notes, window 1001), frontmost\n"
            "- Calculator (com.tavix.sim.calculator, window 1002)\n- Files (com.tavix.sim.files, window 1003)");
}

TEST_F(VirtualDesktopTest, AnUnknownAppIsAnErrorResultNamingTheApps) {
  const Result unknown{{{"text", "App not found: \"Paint\". The running apps are Notes, Calculator, Files.", {}, {}}},
                       true, ComputerUseFailure{Kind::appNotFound, "Paint", {}, {}}};
  EXPECT_EQ(state(desktop, "Paint", std::nullopt), unknown);
  EXPECT_EQ(act(desktop, "Paint", click(1)), unknown);
}

TEST_F(VirtualDesktopTest, ObservationChoosesTextImageOrBoth) {
  const std::pair<std::optional<Observation>, std::vector<std::string>> rows[] = {
      {std::nullopt, {"text", "image image/png"}}, {Observation::both, {"text", "image image/png"}},
      {Observation::state, {"text"}}, {Observation::screenshot, {"image image/png"}}};
  for (const auto &[observation, types] : rows) {
    std::vector<std::string> seen;
    for (const auto &block : state(desktop, "Files", observation).content)
      seen.push_back(block.type + (block.mimeType ? " " + *block.mimeType : ""));
    EXPECT_EQ(seen, types);
  }
}

// ---- actions: what the next state shows ----

TEST_F(VirtualDesktopTest, EachActionChangesTheNextState) {
  const VirtualApp app = VirtualAppCatalogue::makeNotes(width, height);
  const auto centre = [&](size_t i) { const Rect f = app.element(i).frame; return Point{f.x + f.width / 2.0, f.y + f.height / 2.0}; };
  const auto repeated = [](std::string_view piece, size_t times) { std::string text; while (times-- > 0) text += piece; return text; };
  struct Row { std::string app; std::vector<Action> steps; std::vector<std::string> parts; /* of the state after the last step */ };
  const Row rows[] = {
      // A click focuses a text field and typing appends; a click at a position hits the
      // element there.
      {"Notes", {click(1), type("Hello"), type(" you")}, {"\"Hello you\" (focused, cursor at byte 9)", "Focused element: 1"}},
      {"Notes", {clickAt(centre(1)), type("x")}, {"\"Title\" value: \"x\" (focused"}},
      // Save changes the status, the window and the recent notes; a click presses as many
      // times as it counts, but at most ten; a right click only shows the menu.
      {"Notes", {click(1), type("Plan"), click(3)}, {"\"Status\" value: \"Saved 1 time\"", "\n0 window \"Notes - Plan\"\n",
                                                     "\n    6 row \"Plan\" secondary", "(shows items 1-4 of 13, scrollable)"}},
      {"Notes", {click(3, VirtualAppActions::maximumPresses)}, {"\"Saved 10 times\""}},
      {"Notes", {click(3, VirtualAppActions::maximumPresses + 1)}, {"\"Saved 10 times\""}},
      {"Notes", {click(3, 1, 1)}, {"\"Not saved\""}},
      {"Notes", {setValue(1, "Hello"), click(1, 2)}, {"\"Hello\" (focused, selected bytes 0-5)"}},
      {"Notes", {click(9)}, {"\n    9 row \"Book ideas\" (selected) secondary"}},
      // Keys: Left, BackSpace, Home, Delete, a character, ctrl+a, space and plus; Return
      // starts a line in a text area, and presses the default button in a text field or
      // without focus; Tab focuses the first field without focus, then the next; Escape
      // ends the focus.
      {"Notes", {click(1), type("abcd"), key("Left"), key("BackSpace"), key("Home"), key("Delete"), key("x")}, {"\"xbd\" (focused, cursor at byte 1)"}},
      {"Notes", {click(1), type("old"), key("ctrl+a"), type("new"), key("space"), key("+")}, {"\"new +\" (focused, cursor at byte 5)"}},
      {"Notes", {click(2), type("a"), key("Return"), type("b")}, {"\"Body\" value: \"a\\nb\" (focused, cursor at byte 3)"}},
      {"Notes", {key("Return"), click(1), key("return")}, {"\"Saved 2 times\""}},
      {"Notes", {key("Tab"), key("Tab")}, {"Focused element: 2"}},
      {"Notes", {click(1), key("Escape")}, {"Focused element: none"}},
      // setValue replaces a value without focusing.
      {"Notes", {setValue(2, "Line \"one\"")}, {"\"Body\" value: \"Line \\\"one\\\"\" secondary", "Focused element: none"}},
      // A text selected by a prefix is replaced by typing; the cursor goes before or after
      // a text.
      {"Notes", {setValue(1, "ab ab"), Action{TextSelectionParams{1, "ab", "ab ", {}, Mode::text}}, type("X"), selectText(1, "X", Mode::cursorBefore),
                 type("big "), selectText(1, "ab", Mode::cursorAfter), type(",")}, {"\"ab, big X\" (focused, cursor at byte 3)"}},
      // Scrolling a list by pages; a row scrolls its list; scrolling stops at the bottom.
      {"Notes", {scroll(5, 1)}, {"(shows items 5-8 of 12, scrollable)", "\n    6 row \"Recipes\" secondary"}},
      {"Notes", {scroll(5, 1, 100), scroll(7, 0, 0.5)}, {"(shows items 7-10 of 12, scrollable)"}},
      // Dragging a row onto another moves its item.
      {"Notes", {drag(centre(6), centre(8))}, {"\n    6 row \"Meeting notes\" secondary", "\n    8 row \"Shopping list\" (selected) secondary"}},
      // A secondary action by name in any case, the first by default; Delete removes a
      // row's item.
      {"Notes", {setValue(1, "x"), secondary(1, "clear"), secondary(3, std::nullopt)}, {"\"Title\" value: \"\" secondary", "\"Saved 1 time\""}},
      {"Notes", {secondary(6, "Delete")}, {"\n    6 row \"Meeting notes\" secondary", "(shows items 1-4 of 11, scrollable)"}},
      // Four megabytes paste into the focused field and the state shows their first 128
      // KiB, cut at a character boundary; 128 KiB show whole.
      {"Notes", {click(2), paste(std::string(PasteParams::maxTextBytes, 'p'))},
       {"value: \"" + std::string(128 * 1024, 'p') + "\" (cut; 4000000 bytes in all) (focused, cursor at byte 4000000)"}},
      {"Notes", {click(2), paste(std::string(131072, 'q'))}, {"value: \"" + std::string(131072, 'q') + "\" (focused, cursor at byte 131072)"}},
      {"Notes", {click(2), paste("a" + repeated("\u00e9", 65536))},
       {"value: \"a" + repeated("\u00e9", 65535) + "\" (cut; 131073 bytes in all) (focused, cursor at byte 131073)"}},
      // The calculator by its buttons and by keys, C clearing it; Files opens the selected
      // file only.
      {"Calculator", {click(10), click(5), click(11), click(13)}, {"\"Display\" value: \"3\""}},
      {"Calculator", {key("7"), key("C"), key("9"), key("-"), key("4"), key("Return")}, {"\"Display\" value: \"5\""}},
      {"Files", {click(4), click(9)}, {"\"Status\" value: \"Opened letter-02.doc\"", "\n0 window \"Files - letter-02.doc\"\n"}},
      {"Files", {click(9)}, {"\"Status\" value: \"Select a file first\""}},
  };
  for (const auto &[app, steps, parts] : rows) {
    SCOPED_TRACE(parts.front().substr(0, 80));
    VirtualDesktop fresh(options());
    Result last;
    for (const auto &step : steps)
      ASSERT_FALSE((last = act(fresh, app, step)).isError) << *last.content.at(0).text;
    // Each action answers a confirmation and the state after it, without an image.
    ASSERT_EQ(last.content.size(), 2u);
    EXPECT_FALSE(last.content[0].text->starts_with("<app_state>"));
    const std::string after = *last.content[1].text;
    EXPECT_EQ(after, stateText(fresh, app));
    for (const auto &part : parts)
      EXPECT_TRUE(contains(after, part)) << part.substr(0, 200) << "\nin\n" << after.substr(0, 2000);
  }
}

TEST_F(VirtualDesktopTest, ActionsThatCannotBeDoneAnswerErrorResultsAndChangeNothing) {
  const std::string badKey = "\": use a key name such as Return, BackSpace, Tab, Left or Escape, or a single character.";
  const std::string outside = " is outside the Notes window, which is 800 by 600 pixels.";
  struct Row { std::string app; std::vector<Action> setup; Action action; Kind kind; std::string text; };
  const Row rows[] = {
      {"Notes", {}, click(10), Kind::invalidElement, "No element 10 in Notes: its elements are 0 to 9."},
      {"Notes", {}, click(-1), Kind::invalidElement, "No element -1 in Notes: its elements are 0 to 9."},
      // Nine deletes leave row 9 empty.
      {"Notes", std::vector(9, secondary(6, "Delete")), click(9), Kind::invalidElement, "Element 9 of Notes is an empty row that is not shown."},
      // The first points outside the window (the last inside are hit, below).
      {"Notes", {}, clickAt({width, 10}), Kind::invalidArgument, "The point (800, 10)" + outside},
      {"Notes", {}, clickAt({10, height}), Kind::invalidArgument, "The point (10, 600)" + outside},
      {"Notes", {}, type("x"), Kind::invalidArgument, "No text field in Notes has keyboard focus: click one first."},
      {"Notes", {click(1)}, type(""), Kind::invalidArgument, "There is no text to type."},
      {"Notes", {click(1)}, key("Hyper"), Kind::keyNotFound, "Unknown key \"Hyper" + badKey},
      {"Notes", {click(1)}, key("fn+a"), Kind::keyNotFound, "Unknown key \"fn+a" + badKey},
      {"Notes", {click(1)}, key("ctrl+q"), Kind::keyNotFound, "The key \"ctrl+q\" does nothing in text field \"Title\" (element 1)."},
      {"Calculator", {}, key("x"), Kind::invalidArgument,
       "The key \"x\" does nothing in Calculator: no text field has keyboard focus and no button answers it."},
      {"Notes", {}, setValue(3, "x"), Kind::invalidElement, "button \"Save\" (element 3) has no value that can be set."},
      {"Notes", {setValue(1, "abc")}, selectText(1, "zz"), Kind::invalidArgument, "The text \"zz\" is not in text field \"Title\" (element 1)."},
      {"Notes", {}, selectText(3, "Save"), Kind::invalidElement, "button \"Save\" (element 3) has no text to select."},
      {"Notes", {}, scroll(3, 1), Kind::invalidElement, "button \"Save\" (element 3) does not scroll; only lists do."},
      {"Notes", {}, scroll(5, 3), Kind::invalidArgument, "Cannot scroll the list \"Recent notes\" sideways: it scrolls up and down."},
      {"Notes", {}, drag({100, 58}, {100, 100}), Kind::invalidArgument, "Nothing to drag at (100, 58): only the rows of a list can be dragged."},
      {"Notes", {}, secondary(3, "Rename"), Kind::invalidSecondaryAction, "button \"Save\" (element 3) has no secondary action \"Rename\"; it has Press."},
      {"Notes", {}, secondary(4, "Press"), Kind::invalidSecondaryAction, "static text \"Status\" (element 4) has no secondary actions."},
      // The actions' own checks apply (their limits are tested with the actions), with a
      // failure of no particular kind.
      {"Notes", {}, scroll(5, 1, 0), Kind::unknown, "pages must be a finite number in (0, 100]."},
      {"Notes", {click(2)}, paste(""), Kind::unknown, "paste text must be nonempty and at most 4 MB of UTF-8."},
  };
  for (const auto &[app, setup, action, kind, text] : rows) {
    SCOPED_TRACE(text);
    VirtualDesktop fresh(options());
    for (const auto &step : setup)
      ASSERT_FALSE(act(fresh, app, step).isError);
    const std::string before = stateText(fresh, app);
    const auto response = act(fresh, app, action);
    ASSERT_TRUE(response.isError && response.failure.has_value());
    EXPECT_EQ(response.failure->kind, kind);
    EXPECT_EQ(response.content, (std::vector<ComputerUseIPCToolContentBlock>{{"text", text, {}, {}}}));
    EXPECT_EQ(stateText(fresh, app), before) << "a failed action changed the state";
  }
  for (const Point point : {Point{width - 1, 10}, Point{10, height - 1}, Point{0, 0}})
    EXPECT_FALSE(act(desktop, "Notes", clickAt(point)).isError);
}

// ---- the screenshot ----

TEST_F(VirtualDesktopTest, TheScreenshotIsAPngOfTheWindowDrawnOncePerChange) {
  const DecodedPng before = screenshot("Notes");
  ASSERT_EQ(before.problem, "");
  EXPECT_EQ(std::pair(before.width, before.height), std::pair(800u, 600u));
  // It is the window as the renderer draws it.
  EXPECT_EQ(before.samples, WindowRenderer::render(VirtualAppCatalogue::makeNotes(width, height)).samples());
  const Rect title = VirtualAppCatalogue::makeNotes(width, height).element(1).frame;
  const auto colour = [](Rgb rgb) { return uint32_t(rgb.red) << 16 | uint32_t(rgb.green) << 8 | rgb.blue; };
  EXPECT_EQ(before.pixel(uint32_t(title.x), uint32_t(title.y)), colour(WindowRenderer::border));
  // A repeated state answers it from memory, another app's is drawn, a state without an
  // image draws none.
  EXPECT_EQ(state(desktop, "Notes", std::nullopt), state(desktop, "Notes", std::nullopt));
  state(desktop, "Files", std::nullopt);
  state(desktop, "Calculator");
  EXPECT_EQ(desktop.screenshotsEncoded(), 2u);
  // A change draws it anew.
  act(desktop, "Notes", click(1));
  const DecodedPng focused = screenshot("Notes");
  EXPECT_EQ(focused.pixel(uint32_t(title.x), uint32_t(title.y)), colour(WindowRenderer::focusBorder));
  EXPECT_EQ(desktop.screenshotsEncoded(), 3u);
  act(desktop, "Notes", type("W"));
  EXPECT_NE(screenshot("Notes").samples, focused.samples);
}

// ---- health and recording ----

TEST_F(VirtualDesktopTest, ClientsCountAsActiveForTheHeartbeatTimeout) {
  // Whether the call refreshes (absent: no), the caller, how much later it comes, the count
  // it answers.
  const std::tuple<std::optional<bool>, const char *, std::chrono::milliseconds, int64_t> rows[] = {
      {{}, ":1.1", 0ms, 0}, {true, ":1.1", 0ms, 1}, {true, ":1.1", 0ms, 1}, {true, ":1.2", 0ms, 2},
      {{}, ":1.3", 90s, 2}, {{}, ":1.3", 1ms, 0}, {true, ":1.2", 0ms, 1}};
  for (const auto &[refresh, client, later, active] : rows) {
    now += later;
    EXPECT_EQ(desktop.health({refresh}, {client})->activeClientCount, active) << client << " " << testing::PrintToString(refresh);
  }
}

TEST_F(VirtualDesktopTest, RecordingCountsTheActionsPerformed) {
  act(desktop, "Notes", click(3)); // before the recording
  ASSERT_TRUE(desktop.startEventStream({}).has_value());
  for (const int64_t element : {3, 99, 1}) // a failed action (99) is no interaction
    act(desktop, "Notes", click(element));
  EXPECT_EQ(desktop.eventStreamStatus({})->eventCount, 2);
  EXPECT_EQ(desktop.stopEventStream({})->eventCount, 2);
  act(desktop, "Notes", click(3));
  EXPECT_EQ(desktop.eventStreamStatus({})->eventCount, 2);
}

// ---- appshot captures ----

TEST_F(VirtualDesktopTest, AStartTargetsTheNamedOrFrontmostAppAndItsWindowOrSaysWhyNot) {
  const std::string noBundle = "app_not_found: No running app has the bundle identifier ", noWindow = "window_not_found: ";
  const std::pair<ComputerUseIPCAppStartFrontmostCaptureRequest, std::string> rows[] = {
      // The frontmost app (Notes at first), an app by bundle identifier in any case, the
      // app's window.
      {start("a"), notes}, {start("b", calculator), calculator}, {start("c", "COM.TAVIX.SIM.FILES"), files},
      {start("d", notes, 1001), notes}, {start("e", std::nullopt, 1001), notes},
      // Window ids on either side of the app's, 0, the largest, another app's.
      {start("f", notes, 1002), noWindow + "Notes has no window 1002; its window is 1001"},
      {start("g", notes, 1000), noWindow + "Notes has no window 1000; its window is 1001"},
      {start("h", files, 0), noWindow + "Files has no window 0; its window is 1003"},
      {start("i", files, UINT32_MAX), noWindow + "Files has no window 4294967295; its window is 1003"},
      {start("j", std::nullopt, 1003), noWindow + "Notes has no window 1003; its window is 1001"},
      // No such bundle identifier: an app's name is not one, nor is "".
      {start("k", "com.tavix.sim.paint"), noBundle + "\"com.tavix.sim.paint\""},
      {start("l", "Notes"), noBundle + "\"Notes\""}, {start("m", ""), noBundle + "\"\""},
      {start("", notes), "invalid_request_id: A capture needs a requestId that is not empty"},
  };
  for (const auto &[request, expected] : rows)
    EXPECT_EQ(startOf(request), expected) << request.requestId;
  // A capture runs exactly when its start answered a target ("a" goes on, below).
  for (const auto &[request, expected] : std::span(rows).subspan(1)) // clang 14 cannot use libstdc++'s views
    EXPECT_EQ(desktop.cancelCapture(request.requestId), !contains(expected, ":")) << request.requestId;
  // A requestId captures once until cancelled, and the first capture goes on as it was.
  EXPECT_EQ(startOf(start("a", files)), "capture_already_running: A capture is already running with requestId \"a\"");
  EXPECT_EQ(lookNow("a").reply.value().update.target.value().bundleIdentifier, notes);
  EXPECT_TRUE(desktop.cancelCapture("a"));
  EXPECT_EQ(startOf(start("a", files)), files);
  // At most 32 run at once: one does now.
  for (int number = 2; number <= 32; ++number)
    ASSERT_EQ(startOf(start("capture-" + std::to_string(number))), notes) << number;
  EXPECT_EQ(startOf(start("capture-33")), "too_many_captures: 32 captures are running; cancel one first");
  EXPECT_TRUE(desktop.cancelCapture("capture-7"));
  EXPECT_EQ(startOf(start("capture-33")), notes);
}

TEST_F(VirtualDesktopTest, ACaptureTargetNamesTheAppItsWindowAndASmallIcon) {
  const std::tuple<const char *, const char *, const char *> rows[] = {
      {notes, "Notes", "Notes - Untitled"}, {calculator, "Calculator", "Calculator"}, {files, "Files", "Files - Documents"}};
  std::set<std::string> icons;
  for (const auto &[bundle, name, windowTitle] : rows) {
    const auto target = desktop.startCapture(start(name, bundle))->target.value();
    EXPECT_EQ(target, (ComputerUseIPCAppshotTarget{bundle, name, target.iconSmallDataURL, windowTitle}));
    const DecodedPng icon = decodePngDataURL(target.iconSmallDataURL.value_or(""));
    ASSERT_EQ(icon.problem, "") << name;
    EXPECT_EQ(std::pair(icon.width, icon.height), std::pair(16u, 16u)) << name;
    // The app's colour in the corner, the white letter in the middle.
    EXPECT_NE(icon.pixel(0, 0), 0xFFFFFFu) << name;
    int white = 0;
    for (uint32_t at = 0; at < 256; ++at)
      white += icon.pixel(at % 16, at / 16) == 0xFFFFFFu;
    EXPECT_GT(white, 10) << name;
    icons.insert(*target.iconSmallDataURL);
  }
  EXPECT_EQ(icons.size(), 3u);
}

// After each step, the frontmost app (a start's target, and the one app list_apps marks)
// and the versions the change listener heard. An action or a start names the frontmost
// app, a state request does not; only an action is a change, failed or not. The listener
// hears it after the desktop's lock is let go, or reading the version in it would deadlock.
TEST_F(VirtualDesktopTest, TheFrontmostAppAndTheChangesTheListenerHears) {
  std::vector<uint64_t> heard;
  desktop.setChangeListener([&] { heard.push_back(desktop.stateVersion()); });
  const std::tuple<std::function<void()>, const char *, std::vector<uint64_t>> steps[] = {
      {[] {}, notes, {}},
      {[&] { act(desktop, "Calculator", click(2)); }, calculator, {1}},
      {[&] { act(desktop, "Paint", click(1)); }, calculator, {1}}, // an unknown app: nothing
      {[&] { desktop.startApp({"Files"}); }, files, {1}},
      {[&] { desktop.startApp({"Paint"}); }, files, {1}},
      {[&] { act(desktop, "notes", click(999)); }, notes, {1, 2}},
      {[&] { state(desktop, "Files", std::nullopt); }, notes, {1, 2}},
      {[&] { lookNow("front-1"); desktop.cancelCapture("front-1"); }, notes, {1, 2}},
      {[&] { act(desktop, "Files", click(1)); }, files, {1, 2, 3}},
      {[&] { desktop.setChangeListener({}); act(desktop, "Files", click(1)); }, files, {1, 2, 3}},
  };
  int number = 0;
  for (const auto &[step, frontmost, versions] : steps) {
    step();
    const std::string list = *desktop.listApps({})->content.at(0).text;
    EXPECT_EQ(list.find("frontmost"), list.rfind("frontmost")) << list;
    EXPECT_EQ(list.substr(list.find(')', list.find(std::string("(") + frontmost + ",")), 12), "), frontmost") << list;
    EXPECT_EQ(startOf(start("front-" + std::to_string(++number))), frontmost) << number;
    EXPECT_EQ(heard, versions) << number;
  }
  EXPECT_EQ(desktop.stateVersion(), 4u);
}

TEST_F(VirtualDesktopTest, TheWindowsPictureComesFirstThenOneAfterEachChange) {
  startOf(start("updates", notes));
  std::vector<std::string> pictures;
  // The type and window title of the update due now, "" when none is; its picture is the
  // whole window, as the transition snapshot first and as a screenshot after.
  const auto due = [&] {
    const auto look = CaptureUpdates::look(desktop, "updates", received + 1s, received, false);
    if (typeOf(look).empty())
      return std::string();
    const auto &update = look.reply->update;
    const bool first = update.type == "snapshot";
    // The call's requestId, the target's app, and which picture the update carries.
    EXPECT_EQ(std::tuple(look.reply->requestId, update.target.value().bundleIdentifier, update.transitionSnapshotDataURL.has_value(),
                         update.screenshotDataURL.has_value()), std::tuple("updates", notes, first, !first));
    pictures.push_back(first ? update.transitionSnapshotDataURL.value_or("") : update.screenshotDataURL.value_or(""));
    const DecodedPng png = decodePngDataURL(pictures.back());
    EXPECT_EQ(png.problem, "");
    EXPECT_EQ(std::pair(png.width, png.height), std::pair(800u, 600u));
    return update.type + " " + update.target->windowTitle.value_or("");
  };
  EXPECT_EQ(due(), "snapshot Notes - Untitled");
  EXPECT_EQ(due(), "");
  state(desktop, "Notes", std::nullopt); // a state request changes nothing
  EXPECT_EQ(due(), "");
  // A title typed and saved: one update for both, and then nothing.
  act(desktop, "Notes", setValue(1, "Plan"));
  act(desktop, "Notes", click(3));
  EXPECT_EQ(due(), "frame Notes - Plan");
  EXPECT_EQ(due(), "");
  // A change in another app counts, and so does a failed action.
  act(desktop, "Calculator", click(2));
  EXPECT_EQ(due(), "frame Notes - Plan");
  act(desktop, "Notes", click(999));
  EXPECT_EQ(due(), "frame Notes - Plan");
  EXPECT_EQ(due(), "");
  // The saved title shows in the first frame.
  EXPECT_NE(pictures.at(0), pictures.at(1));
}

TEST_F(VirtualDesktopTest, ANextUpdateWaitsUntilItsClampedDeadline) {
  startOf(start("waits"));
  ASSERT_EQ(typeOf(lookNow("waits")), "snapshot");
  const std::tuple<std::optional<int64_t>, std::chrono::milliseconds, bool> rows[] = {
      // Absent: the default of 30 s; 0 and below answer at once; 250 ms; the longest, 60
      // s, and anything longer clamped to it.
      {std::nullopt, 29999ms, false}, {std::nullopt, 30000ms, true}, {0, 0ms, true},
      {-1, 0ms, true},                {INT64_MIN, 0ms, true},         {250, 249ms, false},
      {250, 250ms, true},             {60000, 59999ms, false},        {60000, 60000ms, true},
      {60001, 59999ms, false},        {60001, 60000ms, true},         {INT64_MAX, 60000ms, true},
  };
  for (const auto &[timeoutMs, elapsed, timedOut] : rows) {
    SCOPED_TRACE(testing::Message() << timeoutMs.value_or(-999) << " after " << elapsed.count() << " ms");
    const auto look = CaptureUpdates::look(desktop, "waits", received + CaptureUpdates::waitFor(timeoutMs), received + elapsed, false);
    EXPECT_EQ(typeOf(look), timedOut ? "timeout" : "");
    if (timedOut)
      EXPECT_EQ(look.reply->update, (ComputerUseIPCAppshotCaptureUpdate{"timeout", {}, {}, {}, {}, {}}));
  }
  // A due update is answered however late the look.
  act(desktop, "Notes", click(1));
  EXPECT_EQ(typeOf(CaptureUpdates::look(desktop, "waits", received, received + 1h, false)), "frame");
}

TEST_F(VirtualDesktopTest, UnknownAndCancelledCaptures) {
  startOf(start("cancelled"));
  startOf(start("kept"));
  EXPECT_TRUE(desktop.cancelCapture("cancelled"));
  // Never started, cancelled before a call's first look, an empty requestId: unknown.
  for (const std::string id : {"ghost", "cancelled", ""})
    EXPECT_EQ(lookNow(id).error, (RuntimeError{-1728, "No capture is running with requestId \"" + id + "\""})) << id;
  // Cancelled while a call waited (an earlier look found it running); another goes on.
  EXPECT_EQ(typeOf(lookNow("cancelled", true)), "cancelled");
  EXPECT_EQ(typeOf(lookNow("kept")), "snapshot");
  // Only the first cancel of a running capture ends something.
  EXPECT_EQ((std::vector{desktop.cancelCapture("cancelled"), desktop.cancelCapture("ghost"), desktop.cancelCapture("kept"),
                         desktop.cancelCapture("kept")}), (std::vector{false, false, true, false}));
}

} // namespace
} // namespace tavix::test
