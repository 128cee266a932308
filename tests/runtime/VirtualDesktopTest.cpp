// The virtual desktop as the service's callers see it: each action changes what the next
// state shows, failures answer error results of a fitting kind, the screenshot is a real
// PNG of the window that follows the state and is encoded once per change, and health
// counts the clients that keep their activity fresh.

#include "runtime/VirtualAppCatalogue.h"
#include "runtime/VirtualAppActions.h"
#include "runtime/VirtualDesktop.h"
#include "runtime/WindowRenderer.h"
#include "runtime/DecodedPng.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace tavix::test {
namespace {

using namespace runtime;
using Kind = ComputerUseFailure::Kind;
using Clock = std::chrono::system_clock;

ComputerUseIPCAction click(int64_t index, int64_t count = 1, int64_t button = 0) {
  return {ClickParams{index, std::nullopt, std::nullopt, count, button}};
}
ComputerUseIPCAction clickAt(double x, double y) { return {ClickParams{std::nullopt, x, y, 1, 0}}; }
ComputerUseIPCAction type(std::string text) { return {TypeTextParams{std::move(text)}}; }
ComputerUseIPCAction key(std::string name) { return {PressKeyParams{std::move(name)}}; }
ComputerUseIPCAction setValue(int64_t index, std::string value) { return {SetValueParams{index, std::move(value)}}; }
ComputerUseIPCAction scroll(int64_t index, int64_t direction, double pages = 1) {
  return {ScrollParams{index, std::nullopt, std::nullopt, direction, pages}};
}
ComputerUseIPCAction drag(double fromX, double fromY, double toX, double toY) {
  return {DragParams{fromX, fromY, toX, toY}};
}
ComputerUseIPCAction selectText(int64_t index, std::string text, TextSelectionMode mode = TextSelectionMode::text,
                                std::optional<std::string> prefix = std::nullopt) {
  return {TextSelectionParams{index, std::move(text), std::move(prefix), std::nullopt, mode}};
}
ComputerUseIPCAction secondary(int64_t index, std::optional<std::string> action) {
  return {PerformSecondaryActionParams{index, std::move(action)}};
}
ComputerUseIPCAction paste(std::string text) { return {PasteParams{std::move(text), PasteFormat::text}}; }

// The centre of an element of a freshly laid out app, for actions that aim by position.
std::pair<double, double> centre(const VirtualApp &app, size_t index) {
  const Rect frame = app.element(index).frame;
  return {frame.x + frame.width / 2.0, frame.y + frame.height / 2.0};
}

class VirtualDesktopTest : public testing::Test {
protected:
  static constexpr int width = 800, height = 600;

  VirtualDesktopOptions options() {
    VirtualDesktopOptions made;
    made.generationID = "GEN";
    made.bundleIdentifier = "com.tavix.computeruse.test";
    made.bundlePath = "/opt/runtime";
    made.screenWidth = width;
    made.screenHeight = height;
    made.now = [this] { return now; };
    return made;
  }

  ComputerUseIPCToolResultResponse act(const std::string &app, ComputerUseIPCAction action) {
    ComputerUseIPCAppPerformActionRequest request;
    request.app = app;
    request.action = std::move(action);
    return *desktop.performAction(request);
  }

  ComputerUseIPCToolResultResponse state(const std::string &app,
                                         std::optional<ComputerUseIPCObservationKind> observation) {
    return *desktop.getAppState({app, std::nullopt, observation, std::nullopt});
  }

  std::string stateText(const std::string &app) {
    return *state(app, ComputerUseIPCObservationKind::state).content.at(0).text;
  }

  DecodedPng screenshot(const std::string &app) {
    return decodePng(decodeBase64(*state(app, ComputerUseIPCObservationKind::screenshot).content.at(0).data));
  }

  Clock::time_point now = Clock::time_point(std::chrono::seconds(1767225600)); // 2026-01-01
  VirtualDesktop desktop{options()};
};

bool hasLine(const std::string &text, const std::string &line) {
  return text.find("\n" + line + "\n") != std::string::npos;
}

// ---- the state text ----

TEST_F(VirtualDesktopTest, StateTextListsTheWindowAndItsElementsInTreeOrder) {
  const std::string text = stateText("Notes");
  EXPECT_TRUE(text.starts_with("<app_state>\n")) << text;
  EXPECT_TRUE(text.ends_with("\n</app_state>")) << text;
  for (const char *line : {
           "App: Notes",
           "Bundle identifier: com.tavix.sim.notes",
           "Window: \"Notes - Untitled\", 800x600 pixels",
           "Focused element: none",
           "0 window \"Notes - Untitled\"",
           "  1 text field \"Title\" value: \"\" secondary actions: Clear, Select All",
           "  2 text area \"Body\" value: \"\" secondary actions: Clear, Select All",
           "  3 button \"Save\" secondary actions: Press",
           "  4 static text \"Status\" value: \"Not saved\"",
           "  5 list \"Recent notes\" (shows items 1-4 of 12, scrollable)",
           "    6 row \"Shopping list\" secondary actions: Select, Delete",
           "    9 row \"Book ideas\" secondary actions: Select, Delete",
       })
    EXPECT_TRUE(hasLine(text, line)) << line << "\nin\n" << text;
}

TEST_F(VirtualDesktopTest, AppsAreFoundByNameOrBundleIdentifierInAnyCase) {
  for (const char *query : {"Notes", "notes", "NOTES", "com.tavix.sim.notes", "COM.TAVIX.SIM.NOTES"})
    EXPECT_TRUE(hasLine(stateText(query), "App: Notes")) << query;
  EXPECT_TRUE(hasLine(stateText("Calculator"), "  1 static text \"Display\" value: \"0\""));
  EXPECT_TRUE(hasLine(stateText("com.tavix.sim.files"), "  9 button \"Open\" secondary actions: Press"));
}

TEST_F(VirtualDesktopTest, AnUnknownAppIsAnErrorResultNamingTheApps) {
  for (const auto &response : {state("Paint", std::nullopt), act("Paint", click(1))}) {
    EXPECT_TRUE(response.isError);
    ASSERT_TRUE(response.failure.has_value());
    EXPECT_EQ(response.failure->kind, Kind::appNotFound);
    EXPECT_EQ(response.failure->detail, "Paint");
    ASSERT_EQ(response.content.size(), 1u);
    EXPECT_EQ(response.content[0].text,
              "App not found: \"Paint\". The running apps are Notes, Calculator, Files.");
  }
}

TEST_F(VirtualDesktopTest, ObservationChoosesTextImageOrBoth) {
  const std::pair<std::optional<ComputerUseIPCObservationKind>, std::vector<std::string>> rows[] = {
      {std::nullopt, {"text", "image"}},
      {ComputerUseIPCObservationKind::both, {"text", "image"}},
      {ComputerUseIPCObservationKind::state, {"text"}},
      {ComputerUseIPCObservationKind::screenshot, {"image"}},
  };
  for (const auto &[observation, types] : rows) {
    const auto response = state("Files", observation);
    EXPECT_FALSE(response.isError);
    std::vector<std::string> seen;
    for (const auto &block : response.content) {
      seen.push_back(block.type);
      if (block.type == "image")
        EXPECT_EQ(block.mimeType, "image/png");
    }
    EXPECT_EQ(seen, types);
  }
}

TEST_F(VirtualDesktopTest, ListAppsNamesEachAppWithItsBundleIdentifier) {
  const auto response = *desktop.listApps({});
  ASSERT_EQ(response.content.size(), 1u);
  EXPECT_EQ(response.content[0].text, "Running apps:\n- Notes (com.tavix.sim.notes, window 1001), frontmost\n"
                                      "- Calculator (com.tavix.sim.calculator, window 1002)\n"
                                      "- Files (com.tavix.sim.files, window 1003)");
}

// ---- actions: what the next state shows ----

struct ActionRow {
  const char *name;
  std::string app;
  std::vector<ComputerUseIPCAction> steps;
  std::vector<std::string> lines; // in the state after the last step
};

TEST_F(VirtualDesktopTest, EachActionChangesTheNextState) {
  const VirtualApp notes = VirtualAppCatalogue::makeNotes(width, height);
  const auto [titleX, titleY] = centre(notes, 1);
  const auto [row6X, row6Y] = centre(notes, 6);
  const auto [row8X, row8Y] = centre(notes, 8);
  const std::string fourMegabytes(PasteParams::maxTextBytes, 'p');
  auto repeated = [](std::string_view piece, size_t times) {
    std::string text;
    for (size_t i = 0; i < times; ++i)
      text += piece;
    return text;
  };
  const ActionRow rows[] = {
      {"a click focuses a text field and typing appends", "Notes", {click(1), type("Hello"), type(" you")},
       {"  1 text field \"Title\" value: \"Hello you\" (focused, cursor at byte 9) secondary actions: Clear, Select All",
        "Focused element: 1"}},
      {"a click at a position hits the element there", "Notes", {clickAt(titleX, titleY), type("x")},
       {"Focused element: 1"}},
      {"pressing Save changes the status, the window and the recent notes", "Notes", {click(1), type("Plan"), click(3)},
       {"  4 static text \"Status\" value: \"Saved 1 time\"", "0 window \"Notes - Plan\"",
        "    6 row \"Plan\" secondary actions: Select, Delete",
        "  5 list \"Recent notes\" (shows items 1-4 of 13, scrollable)"}},
      {"each press counts", "Notes", {click(3), click(3)}, {"  4 static text \"Status\" value: \"Saved 2 times\""}},
      {"a click presses as many times as it counts", "Notes", {click(3, VirtualAppActions::maximumPresses)},
       {"  4 static text \"Status\" value: \"Saved 10 times\""}},
      {"but at most ten times", "Notes", {click(3, VirtualAppActions::maximumPresses + 1)},
       {"  4 static text \"Status\" value: \"Saved 10 times\""}},
      {"a double click selects a field's text", "Notes", {setValue(1, "Hello"), click(1, 2)},
       {"  1 text field \"Title\" value: \"Hello\" (focused, selected bytes 0-5) secondary actions: Clear, Select All"}},
      {"a right click shows the menu and changes nothing", "Notes", {click(3, 1, 1)},
       {"  4 static text \"Status\" value: \"Not saved\""}},
      {"the last element can be clicked", "Notes", {click(9)}, {"    9 row \"Book ideas\" (selected) secondary actions: Select, Delete"}},
      {"BackSpace deletes before the cursor", "Notes", {click(1), type("Hello"), key("BackSpace")},
       {"  1 text field \"Title\" value: \"Hell\" (focused, cursor at byte 4) secondary actions: Clear, Select All"}},
      {"Left then Delete deletes the character after", "Notes", {click(1), type("abc"), key("Left"), key("Left"), key("Delete")},
       {"  1 text field \"Title\" value: \"ac\" (focused, cursor at byte 1) secondary actions: Clear, Select All"}},
      {"Home then typing inserts at the start", "Notes", {click(1), type("bc"), key("Home"), key("a")},
       {"  1 text field \"Title\" value: \"abc\" (focused, cursor at byte 1) secondary actions: Clear, Select All"}},
      {"Return in a text area starts a line", "Notes", {click(2), type("a"), key("Return"), type("b")},
       {"  2 text area \"Body\" value: \"a\\nb\" (focused, cursor at byte 3) secondary actions: Clear, Select All"}},
      {"Return in a text field presses the default button", "Notes", {click(1), key("return")},
       {"  4 static text \"Status\" value: \"Saved 1 time\""}},
      {"Return without focus presses the default button", "Notes", {key("Return")},
       {"  4 static text \"Status\" value: \"Saved 1 time\""}},
      {"Tab moves the focus to the next field", "Notes", {click(1), key("Tab")}, {"Focused element: 2"}},
      {"Tab without focus focuses the first field", "Notes", {key("Tab")}, {"Focused element: 1"}},
      {"Escape ends the focus", "Notes", {click(1), key("Escape")}, {"Focused element: none"}},
      {"ctrl+a selects everything and typing replaces it", "Notes", {click(1), type("old"), key("ctrl+a"), type("new")},
       {"  1 text field \"Title\" value: \"new\" (focused, cursor at byte 3) secondary actions: Clear, Select All"}},
      {"space and plus are keys", "Notes", {click(1), key("space"), key("+")},
       {"  1 text field \"Title\" value: \" +\" (focused, cursor at byte 2) secondary actions: Clear, Select All"}},
      {"setValue replaces a value without focusing", "Notes", {setValue(2, "Line \"one\"")},
       {"  2 text area \"Body\" value: \"Line \\\"one\\\"\" secondary actions: Clear, Select All", "Focused element: none"}},
      {"selecting text and typing replaces it", "Notes", {setValue(1, "Hello world"), selectText(1, "world"), type("there")},
       {"  1 text field \"Title\" value: \"Hello there\" (focused, cursor at byte 11) secondary actions: Clear, Select All"}},
      {"the cursor before a text", "Notes",
       {setValue(1, "Hello world"), selectText(1, "world", TextSelectionMode::cursorBefore), type("big ")},
       {"  1 text field \"Title\" value: \"Hello big world\" (focused, cursor at byte 10) secondary actions: Clear, Select All"}},
      {"the cursor after a text", "Notes",
       {setValue(1, "Hello world"), selectText(1, "Hello", TextSelectionMode::cursorAfter), type(",")},
       {"  1 text field \"Title\" value: \"Hello, world\" (focused, cursor at byte 6) secondary actions: Clear, Select All"}},
      {"a prefix picks the occurrence", "Notes",
       {setValue(1, "ab ab"), selectText(1, "ab", TextSelectionMode::text, "ab "), type("X")},
       {"  1 text field \"Title\" value: \"ab X\" (focused, cursor at byte 4) secondary actions: Clear, Select All"}},
      {"scrolling down a page shows the next rows", "Notes", {scroll(5, 1)},
       {"  5 list \"Recent notes\" (shows items 5-8 of 12, scrollable)", "    6 row \"Recipes\" secondary actions: Select, Delete"}},
      {"scrolling a row scrolls its list", "Notes", {scroll(7, 1, 2)},
       {"  5 list \"Recent notes\" (shows items 9-12 of 12, scrollable)"}},
      {"scrolling stops at the bottom", "Notes", {scroll(5, 1, 100)},
       {"  5 list \"Recent notes\" (shows items 9-12 of 12, scrollable)"}},
      {"scrolling up half a page moves two rows", "Notes", {scroll(5, 1, 2), scroll(5, 0, 0.5)},
       {"  5 list \"Recent notes\" (shows items 7-10 of 12, scrollable)"}},
      {"dragging a row onto another moves its item", "Notes", {drag(row6X, row6Y, row8X, row8Y)},
       {"    6 row \"Meeting notes\" secondary actions: Select, Delete",
        "    8 row \"Shopping list\" (selected) secondary actions: Select, Delete"}},
      {"a secondary action by name", "Notes", {setValue(1, "x"), secondary(1, "clear")},
       {"  1 text field \"Title\" value: \"\" secondary actions: Clear, Select All"}},
      {"the first secondary action by default", "Notes", {secondary(3, std::nullopt)},
       {"  4 static text \"Status\" value: \"Saved 1 time\""}},
      {"deleting a row removes its item", "Notes", {secondary(6, "Delete")},
       {"    6 row \"Meeting notes\" secondary actions: Select, Delete",
        "  5 list \"Recent notes\" (shows items 1-4 of 11, scrollable)"}},
      {"four megabytes paste into the focused field, and the state shows their start", "Notes",
       {click(2), paste(fourMegabytes)},
       {"  2 text area \"Body\" value: \"" + std::string(128 * 1024, 'p') +
        "\" (cut; 4000000 bytes in all) (focused, cursor at byte 4000000) secondary actions: Clear, Select All"}},
      {"a value of 128 KiB is shown whole", "Notes", {click(2), paste(std::string(128 * 1024, 'q'))},
       {"  2 text area \"Body\" value: \"" + std::string(128 * 1024, 'q') +
        "\" (focused, cursor at byte 131072) secondary actions: Clear, Select All"}},
      {"a longer value is cut at a character boundary", "Notes", {click(2), paste("a" + repeated("\u00e9", 65536))},
       {"  2 text area \"Body\" value: \"a" + repeated("\u00e9", 65535) +
        "\" (cut; 131073 bytes in all) (focused, cursor at byte 131073) secondary actions: Clear, Select All"}},
      {"the calculator adds", "Calculator", {click(10), click(5), click(11), click(13)},
       {"  1 static text \"Display\" value: \"3\""}},
      {"the calculator subtracts and keys press its buttons", "Calculator", {key("9"), key("-"), key("4"), key("Return")},
       {"  1 static text \"Display\" value: \"5\""}},
      {"C clears the calculator", "Calculator", {key("7"), key("C")}, {"  1 static text \"Display\" value: \"0\""}},
      {"Open opens the selected file", "Files", {click(4), click(9)},
       {"  10 static text \"Status\" value: \"Opened letter-02.doc\"", "0 window \"Files - letter-02.doc\""}},
      {"Open without a selection asks for one", "Files", {click(9)},
       {"  10 static text \"Status\" value: \"Select a file first\""}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    VirtualDesktop fresh(options());
    ComputerUseIPCToolResultResponse last;
    for (const auto &step : row.steps) {
      ComputerUseIPCAppPerformActionRequest request;
      request.app = row.app;
      request.action = step;
      last = *fresh.performAction(request);
      ASSERT_FALSE(last.isError) << *last.content.at(0).text;
    }
    // Each action answers a confirmation and the state after it, without an image.
    ASSERT_EQ(last.content.size(), 2u);
    EXPECT_EQ(last.content[0].type, "text");
    EXPECT_FALSE(last.content[0].text->starts_with("<app_state>"));
    const std::string after = *last.content[1].text;
    EXPECT_TRUE(after.starts_with("<app_state>"));
    const auto fetched = *fresh.getAppState({row.app, std::nullopt, ComputerUseIPCObservationKind::state, std::nullopt});
    EXPECT_EQ(*fetched.content.at(0).text, after);
    for (const auto &line : row.lines)
      EXPECT_TRUE(hasLine(after, line)) << line.substr(0, 200) << "\nin\n" << after.substr(0, 2000);
  }
}

struct FailureRow {
  const char *name;
  std::string app;
  std::vector<ComputerUseIPCAction> setup;
  ComputerUseIPCAction action;
  std::optional<Kind> kind; // nothing: only the text is checked
  std::string text;
};

TEST_F(VirtualDesktopTest, ActionsThatCannotBeDoneAnswerErrorResults) {
  const ComputerUseIPCAction atWidth = clickAt(width, 10), atHeight = clickAt(10, height);
  const FailureRow rows[] = {
      {"an index past the last element", "Notes", {}, click(10), Kind::invalidElement,
       "No element 10 in Notes: its elements are 0 to 9."},
      {"a negative index", "Notes", {}, click(-1), Kind::invalidElement, "No element -1 in Notes: its elements are 0 to 9."},
      {"an empty row", "Notes", {secondary(6, "Delete"), secondary(6, "Delete"), secondary(6, "Delete"),
                                  secondary(6, "Delete"), secondary(6, "Delete"), secondary(6, "Delete"),
                                  secondary(6, "Delete"), secondary(6, "Delete"), secondary(6, "Delete")},
       click(9), Kind::invalidElement, "Element 9 of Notes is an empty row that is not shown."},
      {"a point right of the window", "Notes", {}, atWidth, Kind::invalidArgument,
       "The point (800, 10) is outside the Notes window, which is 800 by 600 pixels."},
      {"a point below the window", "Notes", {}, atHeight, Kind::invalidArgument,
       "The point (10, 600) is outside the Notes window, which is 800 by 600 pixels."},
      {"typing without focus", "Notes", {}, type("x"), Kind::invalidArgument,
       "No text field in Notes has keyboard focus: click one first."},
      {"typing nothing", "Notes", {click(1)}, type(""), Kind::invalidArgument, "There is no text to type."},
      {"an unknown key", "Notes", {click(1)}, key("Hyper"), Kind::keyNotFound,
       "Unknown key \"Hyper\": use a key name such as Return, BackSpace, Tab, Left or Escape, or a single character."},
      {"an unknown modifier", "Notes", {click(1)}, key("fn+a"), Kind::keyNotFound,
       "Unknown key \"fn+a\": use a key name such as Return, BackSpace, Tab, Left or Escape, or a single character."},
      {"a shortcut that does nothing", "Notes", {click(1)}, key("ctrl+q"), Kind::keyNotFound,
       "The key \"ctrl+q\" does nothing in text field \"Title\" (element 1)."},
      {"a key no button answers", "Calculator", {}, key("x"), Kind::invalidArgument,
       "The key \"x\" does nothing in Calculator: no text field has keyboard focus and no button answers it."},
      {"setting a button's value", "Notes", {}, setValue(3, "x"), Kind::invalidElement,
       "button \"Save\" (element 3) has no value that can be set."},
      {"selecting text that is not there", "Notes", {setValue(1, "abc")}, selectText(1, "zz"), Kind::invalidArgument,
       "The text \"zz\" is not in text field \"Title\" (element 1)."},
      {"selecting in a button", "Notes", {}, selectText(3, "Save"), Kind::invalidElement,
       "button \"Save\" (element 3) has no text to select."},
      {"scrolling a button", "Notes", {}, scroll(3, 1), Kind::invalidElement,
       "button \"Save\" (element 3) does not scroll; only lists do."},
      {"scrolling sideways", "Notes", {}, scroll(5, 3), Kind::invalidArgument,
       "Cannot scroll the list \"Recent notes\" sideways: it scrolls up and down."},
      {"scrolling zero pages", "Notes", {}, scroll(5, 1, 0), std::nullopt, "pages must be a finite number in (0, 100]."},
      {"dragging a text field", "Notes", {}, drag(100, 58, 100, 100), Kind::invalidArgument,
       "Nothing to drag at (100, 58): only the rows of a list can be dragged."},
      {"an unknown secondary action", "Notes", {}, secondary(3, "Rename"), Kind::invalidSecondaryAction,
       "button \"Save\" (element 3) has no secondary action \"Rename\"; it has Press."},
      {"a secondary action of an element without any", "Notes", {}, secondary(4, "Press"), Kind::invalidSecondaryAction,
       "static text \"Status\" (element 4) has no secondary actions."},
      {"pasting more than four megabytes", "Notes", {click(2)}, paste(std::string(PasteParams::maxTextBytes + 1, 'p')),
       std::nullopt, "paste text must be nonempty and at most 4 MB of UTF-8."},
      {"pasting nothing", "Notes", {click(2)}, paste(""), std::nullopt,
       "paste text must be nonempty and at most 4 MB of UTF-8."},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    VirtualDesktop fresh(options());
    ComputerUseIPCAppPerformActionRequest request;
    request.app = row.app;
    for (const auto &step : row.setup) {
      request.action = step;
      ASSERT_FALSE(fresh.performAction(request)->isError);
    }
    const std::string before =
        *fresh.getAppState({row.app, std::nullopt, ComputerUseIPCObservationKind::state, std::nullopt})->content[0].text;
    request.action = row.action;
    const auto response = *fresh.performAction(request);
    EXPECT_TRUE(response.isError);
    ASSERT_TRUE(response.failure.has_value());
    if (row.kind)
      EXPECT_EQ(response.failure->kind, *row.kind);
    ASSERT_EQ(response.content.size(), 1u);
    EXPECT_EQ(response.content[0].text, row.text);
    const std::string after =
        *fresh.getAppState({row.app, std::nullopt, ComputerUseIPCObservationKind::state, std::nullopt})->content[0].text;
    EXPECT_EQ(after, before) << "a failed action changed the state";
  }
}

TEST_F(VirtualDesktopTest, ThePointsJustInsideTheWindowAreHit) {
  EXPECT_FALSE(act("Notes", clickAt(width - 1, 10)).isError);
  EXPECT_FALSE(act("Notes", clickAt(10, height - 1)).isError);
  EXPECT_FALSE(act("Notes", clickAt(0, 0)).isError);
}

TEST_F(VirtualDesktopTest, TheExecuteFormActsAsThePerformFormDoes) {
  ComputerUseIPCAppExecuteActionRequest request;
  request.app = "Notes";
  request.action = click(3);
  EXPECT_FALSE(desktop.performAction(request)->isError);
  EXPECT_TRUE(hasLine(stateText("Notes"), "  4 static text \"Status\" value: \"Saved 1 time\""));
}

// ---- the screenshot ----

TEST_F(VirtualDesktopTest, TheScreenshotIsAPngOfTheScreen) {
  const DecodedPng png = screenshot("Notes");
  ASSERT_EQ(png.problem, "");
  EXPECT_EQ(png.width, static_cast<uint32_t>(width));
  EXPECT_EQ(png.height, static_cast<uint32_t>(height));
  for (const auto &chunk : png.chunks)
    EXPECT_TRUE(chunk.crcMatches);
  // It is the window as the renderer draws it.
  EXPECT_EQ(png.samples, WindowRenderer::render(VirtualAppCatalogue::makeNotes(width, height)).samples());
}

TEST_F(VirtualDesktopTest, TheScreenshotFollowsTheState) {
  const VirtualApp notes = VirtualAppCatalogue::makeNotes(width, height);
  const Rect title = notes.element(1).frame;
  const auto colour = [](Rgb rgb) { return uint32_t(rgb.red) << 16 | uint32_t(rgb.green) << 8 | rgb.blue; };
  const DecodedPng before = screenshot("Notes");
  EXPECT_EQ(before.pixel(uint32_t(title.x), uint32_t(title.y)), colour(WindowRenderer::border));
  act("Notes", click(1));
  const DecodedPng focused = screenshot("Notes");
  EXPECT_EQ(focused.pixel(uint32_t(title.x), uint32_t(title.y)), colour(WindowRenderer::focusBorder));
  act("Notes", type("W"));
  const DecodedPng typed = screenshot("Notes");
  EXPECT_NE(typed.samples, focused.samples);
}

TEST_F(VirtualDesktopTest, RepeatedStatesAnswerTheScreenshotFromMemory) {
  const auto first = state("Notes", std::nullopt);
  EXPECT_EQ(desktop.screenshotsEncoded(), 1u);
  const auto second = state("Notes", std::nullopt);
  EXPECT_EQ(desktop.screenshotsEncoded(), 1u);
  EXPECT_EQ(first, second);
  state("Files", std::nullopt);
  EXPECT_EQ(desktop.screenshotsEncoded(), 2u);
  act("Notes", click(3));
  const auto changed = state("Notes", std::nullopt);
  EXPECT_EQ(desktop.screenshotsEncoded(), 3u);
  EXPECT_NE(changed.content[1].data, first.content[1].data);
  state("Notes", ComputerUseIPCObservationKind::state); // no image asked, none drawn
  EXPECT_EQ(desktop.screenshotsEncoded(), 3u);
}

// ---- health and the rest ----

TEST_F(VirtualDesktopTest, HealthReportsTheRuntime) {
  const auto health = *desktop.health({}, {":1.7"});
  EXPECT_EQ(health.generationID, "GEN");
  EXPECT_EQ(health.runtimePID, ::getpid());
  EXPECT_EQ(health.bundleIdentifier, "com.tavix.computeruse.test");
  EXPECT_EQ(health.bundlePath, "/opt/runtime");
  EXPECT_TRUE(health.isHealthy);
  EXPECT_EQ(health.heartbeatTimeoutSeconds, VirtualDesktop::heartbeatTimeoutSeconds);
  VirtualDesktopOptions unhealthy = options();
  unhealthy.healthy = false;
  EXPECT_FALSE(VirtualDesktop(unhealthy).health({}, {":1.7"})->isHealthy);
}

TEST_F(VirtualDesktopTest, ClientsCountAsActiveForTheHeartbeatTimeout) {
  const auto refresh = ComputerUseIPCHealthRequest{true};
  const auto look = ComputerUseIPCHealthRequest{};
  EXPECT_EQ(desktop.health(look, {":1.1"})->activeClientCount, 0);
  EXPECT_EQ(desktop.health(refresh, {":1.1"})->activeClientCount, 1);
  EXPECT_EQ(desktop.health(refresh, {":1.1"})->activeClientCount, 1);
  EXPECT_EQ(desktop.health(refresh, {":1.2"})->activeClientCount, 2);
  const auto start = now;
  now = start + std::chrono::seconds(90);
  EXPECT_EQ(desktop.health(look, {":1.3"})->activeClientCount, 2);
  now = start + std::chrono::seconds(90) + std::chrono::milliseconds(1);
  EXPECT_EQ(desktop.health(look, {":1.3"})->activeClientCount, 0);
  EXPECT_EQ(desktop.health(refresh, {":1.2"})->activeClientCount, 1);
}

TEST_F(VirtualDesktopTest, ObserveRemembersTheLastTurn) {
  EXPECT_EQ(desktop.lastObservedContext(), std::nullopt);
  desktop.observeHostSession({{"session-1", "turn-1"}});
  desktop.observeHostSession({{"session-2", std::nullopt}});
  EXPECT_EQ(desktop.lastObservedContext(), (ComputerUseHostTurnContext{"session-2", std::nullopt}));
}

TEST_F(VirtualDesktopTest, RecordingCountsTheActionsPerformed) {
  act("Notes", click(3));
  ASSERT_TRUE(desktop.startEventStream({}).has_value());
  act("Notes", click(3));
  act("Notes", click(99)); // a failed action is no interaction
  act("Notes", click(1));
  EXPECT_EQ(desktop.eventStreamStatus({})->eventCount, 2);
  EXPECT_EQ(desktop.stopEventStream({})->eventCount, 2);
  act("Notes", click(3));
  EXPECT_EQ(desktop.eventStreamStatus({})->eventCount, 2);
}

} // namespace
} // namespace tavix::test
