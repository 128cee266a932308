// The advice the model reads: each text under its heading and sections, with the lines
// it must carry, of about its intended length, and naming only tools, arguments and
// values that the catalogue has.

#include "gateway/BuiltInInstructions.h"
#include "gateway/ToolCatalogue.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace tavix::test {
namespace {

struct TextCase {
  std::string_view baseName;
  size_t intendedBytes;
  std::vector<std::string> headings; // in order; the first is the text's first line
  std::vector<std::string> lines;    // present as whole lines
};

const std::vector<TextCase> &textCases() {
  static const std::vector<TextCase> cases = {
      {"AppleMusic", 1259, {"## Music Computer Use", "### Searching", "### Navigation", "### Playback"}, {}},
      {"Clock",
       3600,
       {"## Clock Computer Use", "### Adding a city to the World Clock", "### Starting a Timer",
        "### Starting a stopwatch", "### Creating an alarm"},
       {"You can perform the following tasks for the user using Clock:", "- Add or remove cities, in the World Clock",
        "- Start, pause, resume, and cancel a timer", "- Start, stop, lap, and reset a stopwatch"}},
      {"Excel", 1347, {"## Excel Computer Use", "### Editing Spreadsheet Cells"}, {}},
      {"Notion",
       2179,
       {"## Notion Computer Use", "### Editing Notion Documents", "### List Items", "### Selection",
        "### Placeholder Text", "### Code and Quote Blocks", "### Cursor Navigation"},
       {}},
      {"Numbers", 1005, {"## Numbers Computer Use", "### Editing Spreadsheet Cells"}, {}},
      {"Spotify", 827, {"## Spotify Computer Use", "### Playing media", "### Searching", "### General Navigation"}, {}},
      {"iPhone Mirroring",
       277,
       {"### iPhone Mirroring Instructions"},
       {"- cmd+1 Home Screen", "- cmd+2 App Switcher", "- cmd+3 Spotlight"}},
      {"VSCodeLikeIDE", 1157, {"## VS Code-like IDE Computer Use"}, {}},
  };
  return cases;
}

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find('\n', start), text.size());
    lines.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// Headings of the text, in order.
std::vector<std::string> headingsOf(std::string_view text) {
  std::vector<std::string> headings;
  for (auto &line : linesOf(text))
    if (line.starts_with("#"))
      headings.push_back(line);
  return headings;
}

bool hasLine(std::string_view text, const std::string &wanted) {
  const auto lines = linesOf(text);
  return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

// Tool names, argument names and argument values of both catalogues.
std::set<std::string> catalogueWords() {
  std::set<std::string> words;
  for (const auto mode : {MCPServerMode::computerUse, MCPServerMode::recordReplay})
    for (const auto &tool : toolDefinitions(mode)) {
      words.insert(tool.at("name").get<std::string>());
      for (const auto &[argument, schema] : tool.at("inputSchema").at("properties").items()) {
        words.insert(argument);
        for (const auto &value : schema.value("enum", nlohmann::json::array()))
          words.insert(value.get<std::string>());
      }
    }
  // Values the parsers accept that the schemas leave to the descriptions.
  for (const char *direction : {"up", "down", "left", "right"})
    words.insert(direction);
  return words;
}

// Words the text presents as a tool, argument or value: anything in backticks that looks
// like an identifier, and any word with an underscore.
std::set<std::string> namedWords(std::string_view text) {
  std::set<std::string> words;
  const std::string copy(text);
  static const std::regex backticked("`([a-z][a-z_]*)`");
  static const std::regex underscored("[A-Za-z0-9]+(_[A-Za-z0-9]+)+");
  for (std::sregex_iterator it(copy.begin(), copy.end(), backticked), end; it != end; ++it)
    words.insert((*it)[1]);
  for (std::sregex_iterator it(copy.begin(), copy.end(), underscored), end; it != end; ++it)
    words.insert((*it)[0]);
  return words;
}

void expectOnlyCatalogueWords(std::string_view text) {
  static const std::set<std::string> known = catalogueWords();
  for (const auto &word : namedWords(text))
    EXPECT_TRUE(known.contains(word)) << "not in the catalogue: " << word;
}

TEST(InstructionTexts, EachAppTextHasItsHeadingsLinesAndLength) {
  ASSERT_EQ(builtInInstructionBaseNames().size(), textCases().size());
  for (const auto &c : textCases()) {
    SCOPED_TRACE(c.baseName);
    const auto text = builtInInstructions(c.baseName);
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(linesOf(*text).front(), c.headings.front());
    // The required headings appear in this order, whatever else stands between them.
    auto found = headingsOf(*text);
    auto at = found.begin();
    for (const auto &heading : c.headings) {
      at = std::find(at, found.end(), heading);
      EXPECT_NE(at, found.end()) << heading;
    }
    for (const auto &line : c.lines)
      EXPECT_TRUE(hasLine(*text, line)) << line;
    EXPECT_GE(text->size(), c.intendedBytes * 85 / 100);
    EXPECT_LE(text->size(), c.intendedBytes * 115 / 100);
    EXPECT_EQ(text->find("\r"), std::string_view::npos);
    expectOnlyCatalogueWords(*text);
  }
}

TEST(InstructionTexts, OpeningLinesFollowTheirHeadings) {
  const auto clock = linesOf(*builtInInstructions("Clock"));
  EXPECT_EQ(clock.at(2), "You can perform the following tasks for the user using Clock:");
  EXPECT_EQ(clock.at(3), "- Add or remove cities, in the World Clock");
  // The editor text's one section opens with what the app is built from.
  const auto editor = linesOf(*builtInInstructions("VSCodeLikeIDE"));
  const auto section = std::find_if(editor.begin() + 1, editor.end(), [](const auto &line) { return line.starts_with("#"); });
  ASSERT_NE(section, editor.end());
  ASSERT_GT(std::distance(section, editor.end()), 2);
  EXPECT_TRUE(std::next(section, 2)->starts_with("This app uses a VS Code-style workbench with Monaco editor surfaces."))
      << *std::next(section, 2);
}

TEST(InstructionTexts, TheGuideCarriesItsRules) {
  const std::string_view guide = computerUseGuide();
  const auto lines = linesOf(guide);
  EXPECT_EQ(lines.at(0), "# Computer Use");
  EXPECT_TRUE(lines.at(2).starts_with(
      "Computer Use lets Tavix interact with local desktop apps by reading the screen and performing UI actions."));
  const auto headings = headingsOf(guide);
  const auto selection = std::find(headings.begin(), headings.end(), "# Computer Use Tool Selection");
  const auto writing = std::find(headings.begin(), headings.end(), "## Writing text into UI elements");
  ASSERT_NE(selection, headings.end());
  ASSERT_NE(writing, headings.end());
  EXPECT_LT(selection, writing);
  for (const char *rule :
       {"Before any UI action, call get_app_state unless you already have the target app\u2019s up-to-date state "
        "from a previous tool result.",
        "If MCP tools are lazy-loaded, load and read each tool\u2019s definition and input schema before calling it; "
        "never guess parameter names or required fields.",
        "Clipboard consumption is not proof of a successful edit: verify the actual app state after pasting.",
        "(settable, string)"})
    EXPECT_NE(guide.find(rule), std::string_view::npos) << rule;
  // The writing section names each of the four ways to put text into an app.
  const size_t section = guide.find("## Writing text into UI elements");
  for (const char *tool : {"`set_value`", "`type_text`", "`paste`", "`press_key`"})
    EXPECT_NE(guide.find(tool, section), std::string_view::npos) << tool;
  expectOnlyCatalogueWords(guide);
}

TEST(InstructionTexts, TheVocabularyCheckCatchesUnknownNames) {
  EXPECT_EQ(namedWords("Use `click`, then `open_app` and take_screenshot."),
            (std::set<std::string>{"click", "open_app", "take_screenshot"}));
  EXPECT_FALSE(catalogueWords().contains("open_app"));
  EXPECT_TRUE(catalogueWords().contains("cursor_after"));
  EXPECT_TRUE(catalogueWords().contains("max_duration_seconds"));
}

} // namespace
} // namespace tavix::test
