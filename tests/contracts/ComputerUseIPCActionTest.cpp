// Actions on the wire, and the three validations with their bounds.

#include "contracts/ComputerUseIPCAction.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tavix::test {
namespace {

using nlohmann::json;
constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double inf = std::numeric_limits<double>::infinity();

TEST(ComputerUseIPCAction, EveryCaseRoundTripsThroughItsOneKeyForm) {
  const std::pair<ComputerUseIPCAction, std::string> cases[] = {
      {{ClickParams{3, std::nullopt, std::nullopt, 1, 0}},
       R"({"click":{"_0":{"clickCount":1,"elementIndex":3,"mouseButton":0}}})"},
      {{ClickParams{std::nullopt, 10.5, 20.0, 2, 1}},
       R"({"click":{"_0":{"clickCount":2,"mouseButton":1,"x":10.5,"y":20.0}}})"},
      {{ScrollParams{std::nullopt, 1.0, 2.0, 1, 0.5}},
       R"({"scroll":{"_0":{"direction":1,"pages":0.5,"x":1.0,"y":2.0}}})"},
      {{DragParams{1, 2, 3, 4}}, R"({"drag":{"_0":{"fromX":1.0,"fromY":2.0,"toX":3.0,"toY":4.0}}})"},
      {{TypeTextParams{"héllo"}}, R"({"typeText":{"_0":{"text":"héllo"}}})"},
      {{PasteParams{"a\nb", PasteFormat::md}}, R"({"paste":{"_0":{"format":"md","text":"a\nb"}}})"},
      {{PressKeyParams{"return"}}, R"({"pressKey":{"_0":{"key":"return"}}})"},
      {{SetValueParams{4, ""}}, R"({"setValue":{"_0":{"elementIndex":4,"value":""}}})"},
      {{TextSelectionParams{5, "word", "a ", std::nullopt, TextSelectionMode::cursorAfter}},
       R"({"selectText":{"_0":{"elementIndex":5,"prefix":"a ","selection":"cursor_after","text":"word"}}})"},
      {{PerformSecondaryActionParams{6, "AXShowMenu"}},
       R"({"performSecondaryAction":{"_0":{"action":"AXShowMenu","elementIndex":6}}})"},
      {{PerformSecondaryActionParams{6, std::nullopt}},
       R"({"performSecondaryAction":{"_0":{"elementIndex":6}}})"},
  };
  for (const auto &[action, text] : cases) {
    EXPECT_EQ(action.toJSON().dump(), text);
    const auto decoded = ComputerUseIPCAction::fromJSON(json::parse(text));
    ASSERT_TRUE(decoded.has_value()) << text << ": " << decoded.error().description;
    EXPECT_EQ(*decoded, action) << text;
  }
}

TEST(ComputerUseIPCAction, MalformedActionsFailWithTheirReason) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({})", "Invalid number of keys found, expected one."},
      {R"({"click":{"_0":{"clickCount":1,"mouseButton":0}},"drag":{"_0":{}}})",
       "Invalid number of keys found, expected one."},
      {R"({"hover":{"_0":{}}})", "Invalid number of keys found, expected one."},
      {R"({"Click":{"_0":{"clickCount":1,"mouseButton":0}}})", "Invalid number of keys found, expected one."},
      {R"({"click":{}})", "Missing required key \"_0\""},
      {R"({"click":{"_0":{"mouseButton":0}}})", "Missing required key \"clickCount\""},
      {R"({"selectText":{"_0":{"elementIndex":1,"text":"t","selection":"cursorAfter"}}})",
       "Unknown value for \"selection\""},
      {R"({"paste":{"_0":{"text":"t","format":"rtf"}}})", "Unknown value for \"format\""},
      {R"({"click":[]})", "Expected an object for click"},
      {R"([])", "Expected an object for ComputerUseIPCAction"},
  };
  for (const auto &[text, reason] : cases) {
    const auto decoded = ComputerUseIPCAction::fromJSON(json::parse(text));
    ASSERT_FALSE(decoded.has_value()) << text;
    EXPECT_EQ(decoded.error().description, reason) << text;
  }
  // Keys that name no case are ignored, as in every record.
  const auto withExtra = ComputerUseIPCAction::fromJSON(
      json::parse(R"({"click":{"_0":{"clickCount":1,"elementIndex":2,"mouseButton":0}},"hover":1})"));
  ASSERT_TRUE(withExtra.has_value());
  EXPECT_EQ(withExtra->caseName(), "click");
}

// The message a validation fails with, or "" when it passes.
template <typename Params> std::string verdict(const Params &params) {
  const auto result = params.validate();
  return result ? "" : result.error().description();
}

TEST(ActionValidation, Click) {
  const std::string needsTarget = "click requires either element_index or both x and y";
  const std::string badCoordinates =
      "Invalid click coordinates. Provide finite numeric x and y in screenshot pixel coordinates.";
  const std::string badCount = "Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1.";
  const std::string badButton = "Invalid mouseButton. Use 0 (left), 1 (right), or 2 (middle).";
  const std::pair<ClickParams, std::string> cases[] = {
      {{3, std::nullopt, std::nullopt, 1, 0}, ""},
      {{std::nullopt, 10, std::nullopt, 1, 0}, needsTarget},
      {{std::nullopt, std::nullopt, 10, 1, 0}, needsTarget},
      {{std::nullopt, nan, 1, 1, 0}, badCoordinates},
      {{std::nullopt, 1, inf, 1, 0}, badCoordinates},
      {{std::nullopt, 1e12, -1e12, 1, 0}, ""}, // no bound on click coordinates
      {{3, nan, nan, 1, 0}, ""},                // an index leaves coordinates unchecked
      {{3, std::nullopt, std::nullopt, 0, 0}, badCount},
      {{3, std::nullopt, std::nullopt, 1, 0}, ""},
      {{std::nullopt, nan, 1, 0, 7}, badCoordinates}, // the first failure wins
      {{3, std::nullopt, std::nullopt, 0, 7}, badCount},
      {{3, std::nullopt, std::nullopt, 1, -1}, badButton},
      {{3, std::nullopt, std::nullopt, 1, 2}, ""},
      {{3, std::nullopt, std::nullopt, 1, 3}, badButton},
      {{-5, std::nullopt, std::nullopt, 1, 0}, ""}, // click does not bound the index
  };
  for (const auto &[params, expected] : cases)
    EXPECT_EQ(verdict(params), expected) << params.toJSON();
}

TEST(ActionValidation, Scroll) {
  const std::string badIndex = "Invalid element_index. Provide a non-negative integer index.";
  const std::string needsTarget =
      "scroll requires an element_index string or both numeric x and y in screenshot pixel coordinates.";
  const std::string badDirection = "Invalid scroll direction. Use up, down, left, or right.";
  const std::string badPages = "pages must be a finite number in (0, 100].";
  const std::pair<ScrollParams, std::string> cases[] = {
      {{0, std::nullopt, std::nullopt, 0, 1}, ""},
      {{1000000, std::nullopt, std::nullopt, 0, 1}, ""},
      {{1000001, std::nullopt, std::nullopt, 0, 1}, badIndex},
      {{-1, std::nullopt, std::nullopt, 0, 1}, badIndex},
      {{std::nullopt, 1000000, -1000000, 0, 1}, ""},
      {{std::nullopt, 1000001, 0, 0, 1}, needsTarget},
      {{std::nullopt, 0, -1000000.5, 0, 1}, needsTarget},
      {{std::nullopt, 0, std::nullopt, 0, 1}, needsTarget},
      {{std::nullopt, nan, 0, 0, 1}, needsTarget},
      {{std::nullopt, 0, inf, 0, 1}, needsTarget},
      {{0, std::nullopt, std::nullopt, 3, 1}, ""},
      {{0, std::nullopt, std::nullopt, 4, 1}, badDirection},
      {{0, std::nullopt, std::nullopt, -1, 1}, badDirection},
      {{0, std::nullopt, std::nullopt, 0, 100.0}, ""},
      {{0, std::nullopt, std::nullopt, 0, 100.5}, badPages},
      {{0, std::nullopt, std::nullopt, 0, std::nextafter(100.0, 200.0)}, badPages},
      {{0, std::nullopt, std::nullopt, 0, 0}, badPages},
      {{0, std::nullopt, std::nullopt, 0, 5e-324}, ""},
      {{0, std::nullopt, std::nullopt, 0, -1}, badPages},
      {{0, std::nullopt, std::nullopt, 0, nan}, badPages},
      {{0, std::nullopt, std::nullopt, 0, inf}, badPages},
      {{-1, std::nullopt, std::nullopt, 9, 0}, badIndex}, // the first failure wins
      {{0, nan, inf, 0, 1}, ""},                         // an index leaves coordinates unchecked
  };
  for (const auto &[params, expected] : cases)
    EXPECT_EQ(verdict(params), expected) << params.toJSON();
}

TEST(ActionValidation, PasteCountsUTF8Bytes) {
  const std::string tooLong = "paste text must be nonempty and at most 4 MB of UTF-8.";
  const std::string euro = "€"; // three bytes
  std::string justFits(3999999, 'a');
  justFits = justFits.substr(0, 3999997) + euro; // 4,000,000 bytes, 3,999,998 characters
  const std::pair<std::string, std::string> cases[] = {
      {"", tooLong},
      {"x", ""},
      {std::string(4000000, 'a'), ""},
      {std::string(4000001, 'a'), tooLong},
      {justFits, ""},
      {justFits + "a", tooLong},
  };
  for (const auto &[text, expected] : cases)
    EXPECT_EQ(verdict(PasteParams{text, PasteFormat::text}), expected) << text.size();
}

} // namespace
} // namespace tavix::test
