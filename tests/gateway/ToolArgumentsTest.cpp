// Reading tool arguments: every single-argument parser with the forms it accepts and
// refuses and its message, then each tool's arguments read in the tool's order into the
// action it sends, or the first failure; and the Record & Replay tools' lenient readings.

#include "gateway/ArgumentParsers.h"
#include "gateway/RecordReplayTools.h"
#include "gateway/ToolArguments.h"
#include "support/JSON.h"

#include "fakes/CapturedLog.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using nlohmann::json;
constexpr auto none = std::nullopt;

// A parser's verdict: "= value" or "! message".
template <typename T> std::string verdict(const Parsed<T> &parsed) {
  if (!parsed)
    return "! " + parsed.error().description();
  if constexpr (std::is_same_v<T, std::optional<int64_t>>)
    return *parsed ? "= " + std::to_string(**parsed) : "= none";
  else if constexpr (std::is_same_v<T, TextSelectionMode> || std::is_same_v<T, PasteFormat>)
    return "= " + std::string(rawValue(*parsed));
  else if constexpr (std::is_same_v<T, ClickTarget>)
    return std::holds_alternative<int64_t>(*parsed)
               ? "= element " + std::to_string(std::get<int64_t>(*parsed))
               : "= point " + json(std::get<ClickPoint>(*parsed).x).dump() + "," + json(std::get<ClickPoint>(*parsed).y).dump();
  else
    return "= " + json(*parsed).dump(); // numbers, and enumerations as their numbers
}

const std::string badX = "! Invalid x. Provide a finite number such as 10, not a string, in screenshot pixel coordinates.";

// A parser of one argument, as a verdict.
template <auto parse> std::string read(const json *value) { return verdict(parse(value)); }

TEST(ArgumentParsers, EachArgumentsAcceptedFormsAndMessage) {
  const std::string badIndex = "! Missing expected argument 'element_index'", noIndex = "! Missing required argument: element_index";
  const std::string badCount = "! Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1.";
  const std::string badButton = "! Invalid mouse_button. Use \"left\", \"right\", or \"middle\", or omit it for left.";
  const std::string badPages = "! pages must be a finite number in (0, 100].", badFormat = "! Invalid paste format. Use text, md, or html.";
  const std::map<std::string, std::function<std::string(const json *)>> parsers = {
      {"index", read<parseOptionalElementIndex>}, {"required index", read<parseRequiredElementIndex>},
      {"count", read<parseClickCount>}, {"button", read<parseMouseButton>}, {"pages", read<parseScrollPages>},
      {"selection", read<parseTextSelectionMode>}, {"format", read<parsePasteFormat>},
      {"double", [](const json *v) { return parseOptionalDouble(v) ? json(*parseOptionalDouble(v)).dump() : "none"; }},
      {"x", [](const json *v) { return verdict(parseClickCoordinate(v, "x")); }}};
  // The argument's JSON text, or "-" for an absent one.
  const std::tuple<const char *, const char *, std::string> rows[] = {
      {"index", "-", "= none"}, {"index", "null", "= none"}, {"index", R"("  ")", "= none"}, {"index", "true", "= 1"},
      {"index", R"(" 7 ")", "= 7"}, {"index", R"("+7")", "= 7"}, {"index", R"("-7")", "= -7"}, {"index", "-7.9", "= -7"},
      {"index", R"("9223372036854775807")", "= 9223372036854775807"}, {"index", R"("9223372036854775808")", badIndex},
      {"index", R"("-9223372036854775808")", "= -9223372036854775808"}, {"index", R"("-9223372036854775809")", badIndex},
      {"index", "9223372036854775807", "= 9223372036854775807"}, {"index", "9223372036854775808", badIndex},
      {"index", "1e19", badIndex}, {"index", "-1e19", badIndex}, {"index", R"("7a")", badIndex},
      {"index", R"("+-7")", badIndex}, {"index", R"("+")", badIndex}, {"index", "[7]", badIndex},
      {"required index", "-", noIndex}, {"required index", R"(" ")", noIndex}, {"required index", R"("x")", badIndex},
      {"double", "-", "none"}, {"double", "true", "1.0"}, {"double", R"(" 12.5\n")", "12.5"}, {"double", "[1]", "none"},
      {"double", R"("-3e2")", "-300.0"}, {"double", R"("1e400")", "null"}, {"double", R"("12.5px")", "none"},
      {"double", R"("  ")", "none"}, {"x", "-2.5", "= -2.5"}, {"x", R"("10")", badX}, {"x", "true", badX}, {"x", "-", badX},
      {"count", "-", "= 1"}, {"count", "1", "= 1"}, {"count", "2.0", "= 2"}, {"count", "0", badCount},
      {"count", "0.5", badCount}, {"count", "1.5", badCount}, {"count", R"("2")", badCount}, {"count", "true", badCount},
      {"count", "1e300", badCount}, {"button", "-", "= 0"}, {"button", R"("right")", "= 1"}, {"button", R"("middle")", "= 2"},
      {"button", R"("Right")", badButton}, {"button", "1", badButton}, {"pages", "-", "= 1.0"}, {"pages", "-3", "= -3.0"},
      {"pages", R"("2")", badPages}, {"selection", "-", "= text"}, {"selection", R"(" cursor_before\n")", "= cursor_before"},
      {"selection", R"("cursorAfter")", "! Invalid text selection mode: cursorAfter"},
      {"selection", R"(["text"])", R"(! Invalid text selection mode: ["text"])"}, {"format", "-", "= text"},
      {"format", R"("html")", "= html"}, {"format", R"("markdown")", badFormat}, {"format", R"(" md")", badFormat},
  };
  for (const auto &[parser, input, expected] : rows) {
    const json value = input == std::string("-") ? json() : json::parse(input);
    EXPECT_EQ(parsers.at(parser)(input == std::string("-") ? nullptr : &value), expected) << parser << " " << input;
  }
  // Values built in code are signed integers, parsed ones unsigned: both kinds count.
  for (const json count : {int64_t{0}, int64_t{-2}})
    EXPECT_EQ(verdict(parseClickCount(&count)), badCount) << count;
  const std::pair<std::string, std::string> directions[] = {
      {" U ", "= 0"}, {"down", "= 1"}, {"Left", "= 2"}, {"\nr\t", "= 3"}, {"upward", "! Invalid scroll direction: upward"}};
  for (const auto &[direction, expected] : directions)
    EXPECT_EQ(verdict(parseScrollDirection(direction)), expected) << direction;
}

const std::string badElement =
    "! Invalid element_index. Provide an integer string such as \"7\", or omit element_index and provide numeric x and y.";

TEST(ArgumentParsers, AnElementIndexWinsOverAPointAndTheIgnoredPointIsLogged) {
  CapturedLog log;
  const std::string needsTarget = "! click requires an element_index string or both numeric x and y in screenshot pixel coordinates.";
  const std::pair<const char *, std::string> rows[] = {
      {R"({"element_index":"3","x":10,"y":20})", "= element 3"}, {R"({"element_index":5,"x":"no"})", "= element 5"},
      {R"({"element_index":" ","x":10,"y":20})", "= point 10.0,20.0"}, {R"({"x":10})", needsTarget},
      {R"({"element_index":"3x","x":10,"y":20})", badElement}, {R"({"y":10})", needsTarget}, {R"({"x":"10","y":20})", badX},
      {R"({"x":10,"y":false})", "! Invalid y. Provide a finite number such as 10, not a string, in screenshot pixel coordinates."}};
  for (const auto &[arguments, expected] : rows)
    EXPECT_EQ(verdict(parseClickTarget("click", json::parse(arguments))), expected) << arguments;
  const auto click = log.withEvent("click_coordinates_ignored");
  ASSERT_EQ(click.size(), 2u); // only where a point was given beside the index
  EXPECT_TRUE(click[0].ends_with(" category=tools event=click_coordinates_ignored elementIndex=3 reason=valid_element_index\n"))
      << click[0];
  EXPECT_TRUE(parseClickTarget("scroll", {{"element_index", 4}, {"y", 20}}));
  EXPECT_EQ(log.withEvent("scroll_coordinates_ignored").size(), 1u);
}

// What a tool's arguments read as: the app and the action's JSON, or "! message".
std::string shown(const Parsed<ToolAction> &action) {
  return action ? action->app + " " + action->action.toJSON().dump() : "! " + action.error().description();
}
std::string act(ComputerUseIPCAction::Params params, std::string app = "N") { return shown(ToolAction{std::move(app), {std::move(params)}}); }
std::string missing(const char *argument) { return std::string("! Missing required argument: ") + argument; }

TEST(ToolArguments, EachToolReadsItsArgumentsInOrderIntoItsAction) {
  const std::string badPages = "! pages must be a finite number in (0, 100].";
  const std::tuple<const char *, std::string, std::string> rows[] = {
      {"click", R"({"app":"N","element_index":7.9,"click_count":2,"mouse_button":"right"})", act(ClickParams{7, none, none, 2, 1})},
      {"click", R"({"app":"N","x":10,"y":20.5})", act(ClickParams{none, 10, 20.5, 1, 0})},
      {"click", R"({"element_index":"x","click_count":0})", missing("app")},
      {"click", R"({"app":"N","element_index":"x","click_count":0})", badElement},
      {"click", R"({"app":"N","element_index":1,"click_count":0,"mouse_button":"Left"})",
       "! Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1."},
      {"perform_secondary_action", R"({"app":"N","element_index":" 4 ","action":"AXShowMenu"})", act(PerformSecondaryActionParams{4, "AXShowMenu"})},
      {"perform_secondary_action", R"({"app":"N","action":""})", missing("element_index")},
      {"perform_secondary_action", R"({"app":"N","element_index":4})", missing("action")},
      // The empty value clears a field; a value that is not text is none.
      {"set_value", R"({"app":"N","element_index":2,"value":""})", act(SetValueParams{2, ""})},
      {"set_value", R"({"app":"N","element_index":2,"value":5})", missing("value")},
      {"select_text", R"({"app":"N","element_index":1,"text":"w","prefix":"a ","suffix":"b","selection":"cursor_after"})",
       act(TextSelectionParams{1, "w", "a ", "b", TextSelectionMode::cursorAfter})},
      {"select_text", R"({"app":"N","element_index":1,"selection":"bad"})", missing("text")},
      {"scroll", R"({"app":"N","direction":"right","x":1000000,"y":0,"pages":100})", act(ScrollParams{none, 1000000, 0, 3, 100})},
      {"scroll", R"({"app":"N","direction":" U ","element_index":"3"})", act(ScrollParams{3, none, none, 0, 1})},
      {"scroll", R"({"app":"N","direction":1})", missing("direction")},
      {"scroll", R"({"app":"N","direction":"north","x":1})",
       "! scroll requires an element_index string or both numeric x and y in screenshot pixel coordinates."},
      {"scroll", R"({"app":"N","direction":"north","element_index":1,"pages":"2"})", badPages},
      {"scroll", R"({"app":"N","direction":"north","element_index":1,"pages":0})", "! Invalid scroll direction: north"},
      // What the parsers let through, the action's own validation refuses.
      {"scroll", R"({"app":"N","direction":"up","element_index":1,"pages":0})", badPages},
      {"paste", R"({"app":"N","text":")" + std::string(4000001, 'a') + R"("})", "! paste text must be nonempty and at most 4 MB of UTF-8."},
      {"drag", R"({"app":"N","from_x":"12.5","from_y":1,"to_x":" 3 ","to_y":4.25})", act(DragParams{12.5, 1, 3, 4.25})},
      {"drag", R"({"app":"N","from_x":"a","from_y":"b"})", missing("from_x")},
      {"drag", R"({"app":"N","from_x":1,"from_y":2,"to_x":3})", missing("to_y")},
      // Texts are taken as given, not trimmed; anything but a text is missing.
      {"press_key", R"({"app":" N","key":" "})", act(PressKeyParams{" "}, " N")},
      {"press_key", R"({"app":"N","key":""})", missing("key")}, {"press_key", R"({"app":7,"key":"a"})", missing("app")},
      {"type_text", R"({"app":"N","text":"é\n"})", act(TypeTextParams{"é\n"})}, {"type_text", R"({"app":"N","text":""})", missing("text")},
      {"paste", R"({"app":"N","text":"x"})", act(PasteParams{"x", PasteFormat::text})},
      {"paste", R"({"app":"N","format":"markdown"})", missing("text")},
  };
  for (const auto &[tool, arguments, expected] : rows)
    EXPECT_EQ(shown(actionReader(tool)(parseJSON(arguments).value())), expected) << tool << " " << arguments.substr(0, 99);
  for (const char *tool : {"list_apps", "get_app_state", "event_stream_start", "Click", "click ", ""})
    EXPECT_EQ(actionReader(tool), nullptr) << tool;
}

TEST(RecordReplayArguments, TheDurationIsClampedAndOnlyExactScreenshotModesCount) {
  const std::pair<const char *, std::optional<int64_t>> durations[] = {
      {"null", none}, {"0", 1}, {"1", 1}, {"3600", 3600}, {"3601", 3600}, {"18446744073709551615", 3600},
      {"-9223372036854775808", 1}, {"1e300", 3600}, {"-1e300", 1}, {"90.9", 90}, {"0.5", 1}, {"true", 1},
      {R"("600")", 600}, {R"("+600")", 600}, {R"("-600")", 1}, {R"("0099999")", 3600},
      {R"("9223372036854775807")", 3600}, {R"("9223372036854775808")", none}, {R"("-9223372036854775808")", 1},
      {R"("-9223372036854775809")", none}, {R"("")", none}, {R"(" 600")", none}, {R"("60.5")", none},
      {R"("+-6")", none}, {R"("-")", none}, {"[600]", none}};
  for (const auto &[value, seconds] : durations)
    EXPECT_EQ(recordReplayDuration({{"max_duration_seconds", json::parse(value)}}), seconds) << value;
  EXPECT_EQ(recordReplayDuration(json::object()), none);
  using Mode = ComputerUseIPCEventStreamScreenshotMode;
  const std::pair<json, std::optional<Mode>> modes[] = {
      {"off", Mode::off}, {"window_changes", Mode::windowChanges}, {"interaction_settled", Mode::interactionSettled},
      {"Window_Changes", none}, {" off", none}, {1, none}};
  for (const auto &[value, mode] : modes)
    EXPECT_EQ(recordReplayScreenshotMode({{"screenshot_mode", value}}), mode) << value;
}

} // namespace
} // namespace tavix::test
