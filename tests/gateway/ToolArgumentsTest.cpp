// Each tool's arguments, read in the tool's order: the action they become, exactly, or
// the first failure's message.

#include "gateway/ToolArguments.h"
#include "support/JSON.h"

#include <cmath>

#include <gtest/gtest.h>


namespace tavix::test {
namespace {

using nlohmann::json;
// "{app, action}" as compact JSON, or "! message".
std::string read(const std::string &tool, const json &arguments) {
  const auto action = actionReader(tool)(arguments);
  if (!action)
    return "! " + action.error().description();
  return json{{"app", action->app}, {"action", action->action.toJSON()}}.dump();
}

struct Row {
  const char *tool;
  json arguments;
  std::string expected;
};

TEST(ToolArguments, EachToolReadsItsArgumentsInOrder) {
  const std::string noApp = "! Missing required argument: app";
  const Row rows[] = {
      // click
      {"click", {{"app", "Notes"}, {"element_index", "7"}},
       R"({"action":{"click":{"_0":{"clickCount":1,"elementIndex":7,"mouseButton":0}}},"app":"Notes"})"},
      {"click", {{"app", "Notes"}, {"element_index", 7.9}, {"click_count", 2}, {"mouse_button", "right"}},
       R"({"action":{"click":{"_0":{"clickCount":2,"elementIndex":7,"mouseButton":1}}},"app":"Notes"})"},
      {"click", {{"app", "Notes"}, {"x", 10}, {"y", 20.5}, {"mouse_button", "middle"}},
       R"({"action":{"click":{"_0":{"clickCount":1,"mouseButton":2,"x":10.0,"y":20.5}}},"app":"Notes"})"},
      {"click", {{"element_index", "x"}, {"click_count", 0}}, noApp},
      {"click", {{"app", "Notes"}, {"element_index", "x"}, {"click_count", 0}},
       "! Invalid element_index. Provide an integer string such as \"7\", or omit element_index and provide numeric x and y."},
      {"click", {{"app", "Notes"}, {"element_index", 1}, {"click_count", 0}, {"mouse_button", "Left"}},
       "! Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1."},
      {"click", {{"app", "Notes"}, {"element_index", 1}, {"mouse_button", "Left"}},
       "! Invalid mouse_button. Use \"left\", \"right\", or \"middle\", or omit it for left."},
      // perform_secondary_action
      {"perform_secondary_action", {{"app", "Finder"}, {"element_index", " 4 "}, {"action", "AXShowMenu"}},
       R"({"action":{"performSecondaryAction":{"_0":{"action":"AXShowMenu","elementIndex":4}}},"app":"Finder"})"},
      {"perform_secondary_action", {{"app", "Finder"}, {"action", ""}}, "! Missing required argument: element_index"},
      {"perform_secondary_action", {{"app", "Finder"}, {"element_index", 4}}, "! Missing required argument: action"},
      // set_value
      {"set_value", {{"app", "Form"}, {"element_index", 2}, {"value", ""}},
       R"({"action":{"setValue":{"_0":{"elementIndex":2,"value":""}}},"app":"Form"})"},
      {"set_value", {{"app", "Form"}, {"element_index", 2}, {"value", 5}}, "! Missing required argument: value"},
      {"set_value", {{"app", "Form"}, {"element_index", 2}}, "! Missing required argument: value"},
      {"set_value", {{"app", "Form"}, {"element_index", "two"}}, "! Missing expected argument 'element_index'"},
      // select_text
      {"select_text", {{"app", "Pages"}, {"element_index", 1}, {"text", "word"}, {"prefix", "a "}, {"suffix", 3},
                       {"selection", " cursor_after "}},
       R"({"action":{"selectText":{"_0":{"elementIndex":1,"prefix":"a ","selection":"cursor_after","text":"word"}}},"app":"Pages"})"},
      {"select_text", {{"app", "Pages"}, {"element_index", 1}, {"text", "word"}},
       R"({"action":{"selectText":{"_0":{"elementIndex":1,"selection":"text","text":"word"}}},"app":"Pages"})"},
      {"select_text", {{"app", "Pages"}, {"element_index", 1}, {"selection", "bad"}}, "! Missing required argument: text"},
      {"select_text", {{"app", "Pages"}, {"element_index", 1}, {"text", "w"}, {"selection", "all"}},
       "! Invalid text selection mode: all"},
      // scroll
      {"scroll", {{"app", "Safari"}, {"direction", " U "}, {"element_index", "3"}},
       R"({"action":{"scroll":{"_0":{"direction":0,"elementIndex":3,"pages":1.0}}},"app":"Safari"})"},
      {"scroll", {{"app", "Safari"}, {"direction", "right"}, {"x", 1000000}, {"y", 0}, {"pages", 100}},
       R"({"action":{"scroll":{"_0":{"direction":3,"pages":100.0,"x":1000000.0,"y":0.0}}},"app":"Safari"})"},
      {"scroll", {{"app", "Safari"}, {"x", "bad"}}, "! Missing required argument: direction"},
      {"scroll", {{"app", "Safari"}, {"direction", 1}}, "! Missing required argument: direction"},
      {"scroll", {{"app", "Safari"}, {"direction", "north"}, {"x", 1}},
       "! scroll requires an element_index string or both numeric x and y in screenshot pixel coordinates."},
      {"scroll", {{"app", "Safari"}, {"direction", "north"}, {"element_index", 1}, {"pages", "2"}},
       "! pages must be a finite number in (0, 100]."},
      {"scroll", {{"app", "Safari"}, {"direction", "north"}, {"element_index", 1}, {"pages", 0}},
       "! Invalid scroll direction: north"},
      {"scroll", {{"app", "Safari"}, {"direction", "up"}, {"element_index", 1}, {"pages", 0}},
       "! pages must be a finite number in (0, 100]."},
      {"scroll", {{"app", "Safari"}, {"direction", "up"}, {"element_index", 1}, {"pages", 100.5}},
       "! pages must be a finite number in (0, 100]."},
      {"scroll", {{"app", "Safari"}, {"direction", "up"}, {"element_index", -1}},
       "! Invalid element_index. Provide a non-negative integer index."},
      {"scroll", {{"app", "Safari"}, {"direction", "up"}, {"x", 1000001}, {"y", 0}},
       "! scroll requires an element_index string or both numeric x and y in screenshot pixel coordinates."},
      // drag
      {"drag", {{"app", "Preview"}, {"from_x", "12.5"}, {"from_y", 1}, {"to_x", " 3 "}, {"to_y", 4.25}},
       R"({"action":{"drag":{"_0":{"fromX":12.5,"fromY":1.0,"toX":3.0,"toY":4.25}}},"app":"Preview"})"},
      {"drag", {{"app", "Preview"}, {"from_x", 1}, {"to_x", 3}}, "! Missing required argument: from_y"},
      {"drag", {{"app", "Preview"}, {"from_x", "a"}, {"from_y", "b"}}, "! Missing required argument: from_x"},
      {"drag", {{"app", "Preview"}, {"from_x", 1}, {"from_y", 2}, {"to_x", 3}, {"to_y", nullptr}},
       "! Missing required argument: to_y"},
      // press_key, type_text
      {"press_key", {{"app", "Terminal"}, {"key", "cmd+shift+t"}},
       R"({"action":{"pressKey":{"_0":{"key":"cmd+shift+t"}}},"app":"Terminal"})"},
      {"press_key", {{"app", "Terminal"}, {"key", ""}}, "! Missing required argument: key"},
      {"type_text", {{"app", "Notes"}, {"text", "héllo\n"}},
       R"({"action":{"typeText":{"_0":{"text":"héllo\n"}}},"app":"Notes"})"},
      {"type_text", {{"app", "Notes"}}, "! Missing required argument: text"},
      {"type_text", {{"text", "x"}}, noApp},
      // paste
      {"paste", {{"app", "Mail"}, {"text", "# Hi"}, {"format", "md"}},
       R"({"action":{"paste":{"_0":{"format":"md","text":"# Hi"}}},"app":"Mail"})"},
      {"paste", {{"app", "Mail"}, {"text", "x"}}, R"({"action":{"paste":{"_0":{"format":"text","text":"x"}}},"app":"Mail"})"},
      {"paste", {{"app", "Mail"}, {"text", "x"}, {"format", "markdown"}}, "! Invalid paste format. Use text, md, or html."},
      {"paste", {{"app", "Mail"}, {"format", "markdown"}}, "! Missing required argument: text"},
      {"paste", {{"app", "Mail"}, {"text", std::string(4000001, 'a')}},
       "! paste text must be nonempty and at most 4 MB of UTF-8."},
  };
  for (const auto &row : rows)
    EXPECT_EQ(read(row.tool, row.arguments), row.expected) << row.tool << " " << row.arguments.dump().substr(0, 200);
}

TEST(ToolArguments, PasteAcceptsExactlyFourMillionBytes) {
  const auto action = readPasteArguments({{"app", "Mail"}, {"text", std::string(4000000, 'a')}});
  ASSERT_TRUE(action.has_value());
  EXPECT_EQ(std::get<PasteParams>(action->action.params).text.size(), 4000000u);
}

TEST(ToolArguments, OnlyTheNineActionToolsHaveAnActionReader) {
  for (const char *tool : {"click", "perform_secondary_action", "set_value", "select_text", "scroll", "drag",
                           "press_key", "type_text", "paste"})
    EXPECT_NE(actionReader(tool), nullptr) << tool;
  for (const char *tool : {"list_apps", "get_app_state", "event_stream_start", "Click", "click ", ""})
    EXPECT_EQ(actionReader(tool), nullptr) << tool;
}

TEST(ToolArguments, GetAppStateNeedsOnlyTheApp) {
  EXPECT_EQ(readGetAppStateArguments({{"app", "Notes"}, {"extra", 1}}), "Notes");
  EXPECT_EQ(readGetAppStateArguments(json::object()).error().description(), "Missing required argument: app");
}

} // namespace
} // namespace tavix::test

namespace tavix::test {
namespace {

// Drag does not check finiteness, so "inf" reads; such an action cannot be written as a
// request, which is where it stops.
TEST(ToolArguments, DragTakesNonFiniteTextAndItsRequestIsRefusedWhenWritten) {
  const auto action = readDragArguments({{"app", "Preview"}, {"from_x", "inf"}, {"from_y", "nan"}, {"to_x", 1}, {"to_y", 2}});
  ASSERT_TRUE(action.has_value());
  EXPECT_TRUE(std::isinf(std::get<DragParams>(action->action.params).fromX));
  EXPECT_EQ(serializeJSON(action->action.toJSON(), NonFiniteNumbers::refuse), std::nullopt);
}

} // namespace
} // namespace tavix::test
