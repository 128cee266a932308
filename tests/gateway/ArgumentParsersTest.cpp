// Every argument parser with the forms it accepts and refuses, and every message.

#include "gateway/ArgumentParsers.h"

#include "fakes/CapturedLog.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using nlohmann::json;

// A parser's result as one comparable text: "= value" or "! message".
template <typename T> std::string show(const Parsed<T> &parsed, std::string (*format)(const T &)) {
  return parsed ? "= " + format(*parsed) : "! " + parsed.error().description();
}
std::string showIndex(const std::optional<int64_t> &index) { return index ? std::to_string(*index) : "none"; }
std::string showInteger(const int64_t &value) { return std::to_string(value); }
std::string showDouble(const double &value) { return json(value).dump(); }

// Runs `parser` on the JSON value of each row ("<absent>" for no value).
template <typename Parser>
void expectRows(Parser parser, const std::vector<std::pair<std::string, std::string>> &rows) {
  for (const auto &[input, expected] : rows) {
    if (input == "<absent>") {
      EXPECT_EQ(parser(nullptr), expected) << input;
      continue;
    }
    const json value = json::parse(input);
    EXPECT_EQ(parser(&value), expected) << input;
  }
}

TEST(ArgumentParsers, RequiredString) {
  const std::pair<json, std::string> rows[] = {
      {{{"app", "Notes"}}, "= Notes"},
      {{{"app", "  "}}, "=   "},
      {{{"app", " Notes\n"}}, "=  Notes\n"},
      {{{"app", ""}}, "! Missing required argument: app"},
      {{{"app", 7}}, "! Missing required argument: app"},
      {{{"app", nullptr}}, "! Missing required argument: app"},
      {json::object(), "! Missing required argument: app"},
      {json::array(), "! Missing required argument: app"},
  };
  for (const auto &[arguments, expected] : rows)
    EXPECT_EQ(show<std::string>(requiredString("app", arguments), [](const std::string &s) { return s; }),
              expected)
        << arguments;
}

TEST(ArgumentParsers, ElementIndex) {
  const std::string bad = "! Missing expected argument 'element_index'";
  expectRows([](const json *v) { return show(parseOptionalElementIndex(v), showIndex); },
             {{"<absent>", "= none"}, {"null", "= none"}, {"7", "= 7"}, {"\"7\"", "= 7"},
              {"\" 7 \"", "= 7"}, {"\"\\n7\\t\"", "= 7"}, {"\"+7\"", "= 7"}, {"\"-7\"", "= -7"},
              {"7.9", "= 7"}, {"-7.9", "= -7"}, {"0", "= 0"}, {"true", "= 1"}, {"false", "= 0"},
              {"\"\"", "= none"}, {"\"   \"", "= none"},
              {"\"9223372036854775807\"", "= 9223372036854775807"},
              {"\"-9223372036854775808\"", "= -9223372036854775808"},
              {"9223372036854775807", "= 9223372036854775807"},
              {"\"9223372036854775808\"", bad}, {"\"-9223372036854775809\"", bad},
              {"9223372036854775808", bad}, {"1e19", bad}, {"-1e19", bad},
              {"\"7.5\"", bad}, {"\"x7\"", bad}, {"\"7a\"", bad}, {"\"seven\"", bad}, {"\"+-7\"", bad},
              {"\"++7\"", bad}, {"\"+\"", bad}, {"\"7 7\"", bad}, {"[7]", bad}, {"{}", bad}});
  expectRows([](const json *v) { return show(parseRequiredElementIndex(v), showInteger); },
             {{"<absent>", "! Missing required argument: element_index"},
              {"null", "! Missing required argument: element_index"},
              {"\" \"", "! Missing required argument: element_index"}, {"\"x\"", bad}, {"\"-3\"", "= -3"}});
}

TEST(ArgumentParsers, OptionalDouble) {
  expectRows(
      [](const json *v) {
        const auto d = parseOptionalDouble(v);
        return d ? json(*d).dump() : std::string("none");
      },
      {{"<absent>", "none"}, {"null", "none"}, {"12.5", "12.5"}, {"\"12.5\"", "12.5"}, {"\" 12.5\\n\"", "12.5"},
       {"7", "7.0"}, {"\"-3e2\"", "-300.0"}, {"\"+4\"", "4.0"}, {"\".5\"", "0.5"}, {"\"1e400\"", "null"},
       {"\"12.5px\"", "none"}, {"\"\"", "none"}, {"\"  \"", "none"}, {"\"1,5\"", "none"}, {"[1]", "none"},
       {"{}", "none"}, {"true", "1.0"}});
}

TEST(ArgumentParsers, ClickCoordinate) {
  const std::string bad = "! Invalid x. Provide a finite number such as 10, not a string, in screenshot pixel coordinates.";
  expectRows([](const json *v) { return show(parseClickCoordinate(v, "x"), showDouble); },
             {{"10", "= 10.0"}, {"-2.5", "= -2.5"}, {"1e308", "= 1e+308"}, {"\"10\"", bad}, {"true", bad},
              {"null", bad}, {"<absent>", bad}, {"[10]", bad}});
  const json y = "10";
  EXPECT_EQ(parseClickCoordinate(&y, "y").error().description(),
            "Invalid y. Provide a finite number such as 10, not a string, in screenshot pixel coordinates.");
}

TEST(ArgumentParsers, ClickTarget) {
  const auto target = [](const json &arguments, const char *tool = "click") {
    const auto parsed = parseClickTarget(tool, arguments);
    if (!parsed)
      return "! " + parsed.error().description();
    if (const auto *index = std::get_if<int64_t>(&*parsed))
      return "= element " + std::to_string(*index);
    const auto point = std::get<ClickPoint>(*parsed);
    return "= point " + json(point.x).dump() + "," + json(point.y).dump();
  };
  const std::string badIndex = "! Invalid element_index. Provide an integer string such as \"7\", or omit "
                               "element_index and provide numeric x and y.";
  const std::pair<json, std::string> rows[] = {
      {{{"element_index", "3"}, {"x", 10}, {"y", 20}}, "= element 3"},
      {{{"element_index", 3}}, "= element 3"},
      {{{"element_index", "3"}, {"x", "not a number"}}, "= element 3"},
      {{{"element_index", " "}, {"x", 10}, {"y", 20}}, "= point 10.0,20.0"},
      {{{"element_index", nullptr}, {"x", 10}, {"y", 20.5}}, "= point 10.0,20.5"},
      {{{"element_index", "3x"}, {"x", 10}, {"y", 20}}, badIndex},
      {{{"element_index", json::array()}}, badIndex},
      {{{"x", 10}}, "! click requires an element_index string or both numeric x and y in screenshot pixel coordinates."},
      {{{"y", 10}}, "! click requires an element_index string or both numeric x and y in screenshot pixel coordinates."},
      {json::object(), "! click requires an element_index string or both numeric x and y in screenshot pixel coordinates."},
      {{{"x", "10"}, {"y", 20}}, "! Invalid x. Provide a finite number such as 10, not a string, in screenshot pixel coordinates."},
      {{{"x", "10"}, {"y", "20"}}, "! Invalid x. Provide a finite number such as 10, not a string, in screenshot pixel coordinates."},
      {{{"x", 10}, {"y", false}}, "! Invalid y. Provide a finite number such as 10, not a string, in screenshot pixel coordinates."},
  };
  for (const auto &[arguments, expected] : rows)
    EXPECT_EQ(target(arguments), expected) << arguments;
  EXPECT_EQ(target({{"x", 1}}, "scroll"),
            "! scroll requires an element_index string or both numeric x and y in screenshot pixel coordinates.");
}

TEST(ArgumentParsers, IgnoredCoordinatesAreLoggedOnlyWhenGiven) {
  CapturedLog log;
  ASSERT_TRUE(parseClickTarget("click", {{"element_index", "3"}, {"x", 10}, {"y", 20}}));
  ASSERT_TRUE(parseClickTarget("scroll", {{"element_index", 4}, {"y", 20}}));
  ASSERT_TRUE(parseClickTarget("click", {{"element_index", 5}}));
  const auto click = log.withEvent("click_coordinates_ignored");
  ASSERT_EQ(click.size(), 1u);
  EXPECT_TRUE(click[0].ends_with("category=tools event=click_coordinates_ignored elementIndex=3 reason=valid_element_index\n"))
      << click[0];
  const auto scroll = log.withEvent("scroll_coordinates_ignored");
  ASSERT_EQ(scroll.size(), 1u);
  EXPECT_NE(scroll[0].find(" elementIndex=4 "), std::string::npos) << scroll[0];
}

TEST(ArgumentParsers, ClickCountMouseButtonPagesSelectionAndFormat) {
  const std::string badCount = "! Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1.";
  // Values built in code are signed integers, parsed ones unsigned: both kinds count.
  for (const json &count : {json(int64_t{2}), json(uint64_t{2})})
    EXPECT_EQ(parseClickCount(&count), 2);
  for (const json &count : {json(int64_t{0}), json(int64_t{-2}), json(uint64_t{0})})
    EXPECT_FALSE(parseClickCount(&count).has_value());
  expectRows([](const json *v) { return show(parseClickCount(v), showInteger); },
             {{"<absent>", "= 1"}, {"1", "= 1"}, {"2", "= 2"}, {"2.0", "= 2"}, {"1000000", "= 1000000"},
              {"0", badCount}, {"-1", badCount}, {"1.5", badCount}, {"0.5", badCount}, {"\"2\"", badCount},
              {"true", badCount}, {"null", badCount}, {"1e300", badCount}});
  const std::string badButton = "! Invalid mouse_button. Use \"left\", \"right\", or \"middle\", or omit it for left.";
  expectRows([](const json *v) { return show(parseMouseButton(v), +[](const MouseButton &b) { return std::to_string(int(b)); }); },
             {{"<absent>", "= 0"}, {"\"left\"", "= 0"}, {"\"right\"", "= 1"}, {"\"middle\"", "= 2"},
              {"\"Right\"", badButton}, {"\" left\"", badButton}, {"1", badButton}, {"null", badButton}});
  const std::string badPages = "! pages must be a finite number in (0, 100].";
  expectRows([](const json *v) { return show(parseScrollPages(v), showDouble); },
             {{"<absent>", "= 1.0"}, {"2", "= 2.0"}, {"0.5", "= 0.5"}, {"-3", "= -3.0"}, {"\"2\"", badPages},
              {"true", badPages}, {"null", badPages}});
  expectRows([](const json *v) { return show(parseTextSelectionMode(v), +[](const TextSelectionMode &m) { return std::string(rawValue(m)); }); },
             {{"<absent>", "= text"}, {"\"text\"", "= text"}, {"\" cursor_before\\n\"", "= cursor_before"},
              {"\"cursor_after\"", "= cursor_after"}, {"\"cursorAfter\"", "! Invalid text selection mode: cursorAfter"},
              {"\" Text \"", "! Invalid text selection mode:  Text "}, {"3", "! Invalid text selection mode: 3"},
              {"null", "! Invalid text selection mode: null"}, {"[\"text\"]", "! Invalid text selection mode: [\"text\"]"}});
  const std::string badFormat = "! Invalid paste format. Use text, md, or html.";
  expectRows([](const json *v) { return show(parsePasteFormat(v), +[](const PasteFormat &f) { return std::string(rawValue(f)); }); },
             {{"<absent>", "= text"}, {"\"text\"", "= text"}, {"\"md\"", "= md"}, {"\"html\"", "= html"},
              {"\"markdown\"", badFormat}, {"\" md\"", badFormat}, {"\"HTML\"", badFormat}, {"1", badFormat},
              {"null", badFormat}});
}

TEST(ArgumentParsers, ScrollDirection) {
  const std::pair<std::string, std::string> rows[] = {
      {"up", "= 0"}, {" U ", "= 0"}, {"down", "= 1"}, {"D", "= 1"}, {"Left", "= 2"}, {"l", "= 2"},
      {"\nright\t", "= 3"}, {"r", "= 3"},
      {"north", "! Invalid scroll direction: north"}, {" sideways ", "! Invalid scroll direction:  sideways "},
      {"", "! Invalid scroll direction: "}, {"upward", "! Invalid scroll direction: upward"},
  };
  for (const auto &[text, expected] : rows)
    EXPECT_EQ(show(parseScrollDirection(text), +[](const ScrollDirection &d) { return std::to_string(int(d)); }),
              expected)
        << text;
}

} // namespace
} // namespace tavix::test
