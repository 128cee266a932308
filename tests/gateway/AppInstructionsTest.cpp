// What the model reads besides results: the tool catalogue of each mode byte for byte, the
// advice texts naming only what the catalogue has, and which advice an app gets: the file
// named by the app's identifier or name however the model wrote it, and the user's own.

#include "gateway/AppInstructionProvider.h"
#include "gateway/AppQueryResolution.h"
#include "gateway/BuiltInInstructions.h"
#include "gateway/ToolCatalogue.h"
#include "TestPaths.h"

#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sys/stat.h>

namespace tavix::test {
namespace {

using nlohmann::json;

constexpr std::pair<MCPServerMode, const char *> modes[] = {{MCPServerMode::computerUse, "computerUse"}, {MCPServerMode::recordReplay, "recordReplay"}};

TEST(ToolCatalogue, MatchesTheExpectedCatalogueToolByToolAndByteForByte) {
  // Transcribed independently of the code, so that each checks the other's typos.
  const json expected = json::parse(std::ifstream(TAVIX_TEST_DATA_DIR "/gateway/expected_tool_catalogue.json"));
  for (const auto &[mode, key] : modes) {
    ASSERT_EQ(toolDefinitions(mode).size(), expected.at(key).size()) << key;
    for (size_t i = 0; i < expected.at(key).size(); ++i) // text also tells 1 from 1.0 and true from 1
      EXPECT_EQ(toolDefinitions(mode)[i].dump(), expected.at(key)[i].dump())
          << key << " " << i << ":\n" << json::diff(toolDefinitions(mode)[i], expected.at(key)[i]).dump(2);
  }
}

// Words a text presents as a tool, argument or value: anything in backticks that looks
// like an identifier, and any word with an underscore.
std::set<std::string> namedWords(const std::string &text) {
  std::set<std::string> words;
  static const std::regex named("`([a-z][a-z_]*)`|([A-Za-z0-9]+(_[A-Za-z0-9]+)+)");
  for (std::sregex_iterator it(text.begin(), text.end(), named), end; it != end; ++it)
    words.insert((*it)[1].matched ? (*it)[1] : (*it)[2]);
  return words;
}

TEST(InstructionTexts, EachTextIsItsAppsAndNamesOnlyWhatTheCatalogueHas) {
  // Every tool, argument and value name is a whole text in a catalogue; the scroll
  // directions are left to the schema's description.
  const std::string catalogues = toolDefinitions(modes[0].first).dump() + toolDefinitions(modes[1].first).dump();
  const auto known = [&](const std::string &word) {
    return catalogues.find('"' + word + '"') != std::string::npos || std::set<std::string>{"up", "down", "left", "right"}.contains(word);
  };
  EXPECT_EQ(namedWords("Use `click`, then `open_app` and take_screenshot."),
            (std::set<std::string>{"click", "open_app", "take_screenshot"}));
  EXPECT_TRUE(known("cursor_after") && known("max_duration_seconds") && !known("open_app") && !known("Scroll"));
  const std::pair<std::string_view, std::string_view> headings[] = {{"AppleMusic", "## Music Computer Use"},
      {"Clock", "## Clock Computer Use"}, {"Excel", "## Excel Computer Use"}, {"Notion", "## Notion Computer Use"},
      {"Numbers", "## Numbers Computer Use"}, {"Spotify", "## Spotify Computer Use"}, {"iPhone Mirroring", "### iPhone Mirroring Instructions"},
      {"VSCodeLikeIDE", "## VS Code-like IDE Computer Use"}, {"", "# Computer Use"}};
  EXPECT_EQ(builtInInstructionBaseNames().size(), std::size(headings) - 1);
  for (const auto &[baseName, heading] : headings) {
    const std::string text(baseName.empty() ? computerUseGuide() : builtInInstructions(baseName).value_or(""));
    EXPECT_TRUE(text.starts_with(std::string(heading) + "\n")) << baseName << ": " << text.substr(0, 80);
    EXPECT_EQ(text.find('\r'), std::string::npos) << baseName;
    for (const auto &word : namedWords(text))
      EXPECT_TRUE(known(word)) << baseName << " names what the catalogue lacks: " << word;
  }
}

TEST(AppInstructionProvider, ChoosesTheFileByBundleIdentifierThenNameThenContainment) {
  // The identifier decides over the name; then blanks are removed from the name, which may
  // contain the app's, and the first entry that matches wins.
  constexpr auto none = std::nullopt;
  const std::tuple<std::optional<std::string_view>, std::string_view, std::optional<std::string_view>> cases[] = {
      {"COM.MICROSOFT.EXCEL", "", "Excel"}, {"com.apple.ScreenContinuity", "", "iPhone Mirroring"}, {"com.vscodium", "", "VSCodeLikeIDE"},
      {"com.vscodium.extra", "", none}, {"com.spotify.client", "Excel", "Spotify"}, {"com.example.unknown", "Cursor", "VSCodeLikeIDE"},
      {none, " Clock\n", "Clock"}, {none, "Apple Music", "AppleMusic"}, {none, "Microsoft Excel", "Excel"}, {none, "excel clock", "Clock"},
      {none, "Music", none}, {none, "", none}};
  for (const auto &[bundleIdentifier, name, baseName] : cases)
    EXPECT_EQ(AppInstructionProvider::instructionFileBaseName(bundleIdentifier, name), baseName)
        << bundleIdentifier.value_or("<none>") << " / " << name;
}

TEST(AppQueryResolution, TheQueryAloneNamesTheAppAndItsAdviceOnce) {
  constexpr auto none = std::nullopt;
  const std::tuple<std::string_view, ResolvedApp, std::string> cases[] = {
      {" excel.APP\n", {none, "excel"}, "Excel"}, {"/Applications/Microsoft Excel.app", {none, "Microsoft Excel"}, "Excel"},
      {"com.microsoft.excel", {"com.microsoft.excel", "com.microsoft.excel"}, "Excel"},
      {"/Applications/Cursor.app/", {none, "Cursor"}, "VSCodeLikeIDE"},
      {"Visual Studio Code", {"com.microsoft.vscode", "Visual Studio Code"}, "VSCodeLikeIDE"},
      {"iPhone Mirroring.app", {"com.apple.screencontinuity", "iPhone Mirroring"}, "iPhone Mirroring"},
      {"Music", {"com.apple.music", "Music"}, "AppleMusic"}, {"Notes.app", {none, "Notes"}, "notes"}, {".app", {none, ""}, ""}};
  for (const auto &[query, app, key] : cases) {
    EXPECT_EQ(resolveAppQuery(query), app) << query;
    EXPECT_EQ(deliveryKey(app), key) << query;
  }
}

TEST(AppInstructionProvider, AUsersFileIsAddedAfterTheBuiltInTextTrimmedWhenItIsReadableText) {
  TemporaryDirectory directory;
  const auto path = [&](const std::string &name) { return directory.path() + "/" + name; };
  writeFile(path("Excel.md"), "\n  Prefer formulas.\n\n");
  writeFile(path("iPhone Mirroring.md"), "Use the Home Screen.");
  writeFile(path("Spotify.md"), " \n\t\n \n");                // blank
  writeFile(path("Numbers.md"), "bad \xff byte");              // not UTF-8
  std::filesystem::create_directory(path("Clock.md"));         // not a file
  ASSERT_EQ(::mkfifo(path("Notion.md").c_str(), 0600), 0);     // would block a reader
  writeFile(path("Notes.md"), "Never delivered: no rule names this file.");
  const AppInstructionProvider provider(directory.path());
  const auto builtIn = [](std::string_view baseName) { return std::string(*builtInInstructions(baseName)); };
  EXPECT_EQ(provider.instructions(std::nullopt, "Excel"), builtIn("Excel") + "\n\nPrefer formulas.");
  EXPECT_EQ(provider.instructions("com.apple.screencontinuity", ""), builtIn("iPhone Mirroring") + "\n\nUse the Home Screen.");
  for (const char *ignored : {"Spotify", "Numbers", "Clock", "Notion"})
    EXPECT_EQ(provider.instructions(std::nullopt, ignored), builtIn(ignored)) << ignored;
  EXPECT_EQ(provider.instructions(std::nullopt, "Notes"), std::nullopt);
  EXPECT_EQ(AppInstructionProvider({}).instructions(std::nullopt, "Excel"), builtIn("Excel"));
}

} // namespace
} // namespace tavix::test
