// Which advice an app gets, from where, and that it reaches the model once per app, in
// front of the app's state; and the general guide once per session.

#include "gateway/AppInstructionProvider.h"
#include "gateway/AppQueryResolution.h"
#include "gateway/BuiltInInstructions.h"
#include "gateway/InstructionDeliveryState.h"

#include "testing/TemporaryDirectory.h"
#include "testing/ToolCallHarness.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <thread>

namespace tavix::test {
namespace {

using nlohmann::json;

TEST(AppInstructionProvider, ChoosesTheFileByBundleIdentifierThenNameThenContainment) {
  const struct {
    std::optional<std::string_view> bundleIdentifier;
    std::string_view name;
    std::optional<std::string_view> baseName;
  } cases[] = {
      {"com.apple.clock", "", "Clock"},
      {"com.apple.Music", "", "AppleMusic"},
      {"COM.MICROSOFT.EXCEL", "", "Excel"},
      {"com.apple.iWork.Numbers", "", "Numbers"},
      {"notion.id", "", "Notion"},
      {"com.spotify.client", "", "Spotify"},
      {"com.apple.ScreenContinuity", "", "iPhone Mirroring"},
      {"com.exafunction.windsurf", "", "VSCodeLikeIDE"},
      {"com.google.antigravity", "", "VSCodeLikeIDE"},
      {"com.microsoft.VSCode", "", "VSCodeLikeIDE"},
      {"com.microsoft.VSCodeInsiders", "", "VSCodeLikeIDE"},
      {"com.tavix.app", "", "VSCodeLikeIDE"},
      {"com.tavix.ide", "", "VSCodeLikeIDE"},
      {"com.tavix.work", "", "VSCodeLikeIDE"},
      {"com.todesktop.230313mzl4w4u92", "", "VSCodeLikeIDE"},
      {"com.trae.app", "", "VSCodeLikeIDE"},
      {"com.vscodium", "", "VSCodeLikeIDE"},
      {"com.vscodium.extra", "", std::nullopt},
      {"com.spotify.client", "Excel", "Spotify"}, // the identifier decides
      {"com.example.unknown", "Cursor", "VSCodeLikeIDE"},
      {std::nullopt, "applemusic", "AppleMusic"},
      {std::nullopt, " Clock\n", "Clock"},
      {std::nullopt, "EXCEL", "Excel"},
      {std::nullopt, "Notion", "Notion"},
      {std::nullopt, "numbers", "Numbers"},
      {std::nullopt, "Spotify", "Spotify"},
      {std::nullopt, "Antigravity", "VSCodeLikeIDE"},
      {std::nullopt, "Cursor", "VSCodeLikeIDE"},
      {std::nullopt, "Apple Music", "AppleMusic"},        // blanks removed
      {std::nullopt, "Microsoft Excel", "Excel"},         // contained
      {std::nullopt, "Google Antigravity", "VSCodeLikeIDE"},
      {std::nullopt, "excel clock", "Clock"},             // the first entry that matches wins
      {std::nullopt, "Notes", std::nullopt},
      {std::nullopt, "Music", std::nullopt},
      {std::nullopt, "", std::nullopt},
  };
  for (const auto &c : cases)
    EXPECT_EQ(AppInstructionProvider::instructionFileBaseName(c.bundleIdentifier, c.name), c.baseName)
        << c.bundleIdentifier.value_or("<none>") << " / " << c.name;
}

TEST(AppQueryResolution, TheQueryAloneNamesTheApp) {
  const struct {
    std::string_view query;
    ResolvedApp app;
    std::string key;
  } cases[] = {
      {"Excel", {std::nullopt, "Excel"}, "Excel"},
      {" excel.APP\n", {std::nullopt, "excel"}, "Excel"},
      {"/Applications/Microsoft Excel.app", {std::nullopt, "Microsoft Excel"}, "Excel"},
      {"com.microsoft.excel", {"com.microsoft.excel", "com.microsoft.excel"}, "Excel"},
      {"/Applications/Cursor.app/", {std::nullopt, "Cursor"}, "VSCodeLikeIDE"},
      {"com.Microsoft.VSCode", {"com.microsoft.vscode", "com.Microsoft.VSCode"}, "VSCodeLikeIDE"},
      {"Visual Studio Code", {"com.microsoft.vscode", "Visual Studio Code"}, "VSCodeLikeIDE"},
      {"iPhone Mirroring.app", {"com.apple.screencontinuity", "iPhone Mirroring"}, "iPhone Mirroring"},
      {"Music", {"com.apple.music", "Music"}, "AppleMusic"},
      {"Notes.app", {std::nullopt, "Notes"}, "notes"},
      {"com.example.notes", {std::nullopt, "com.example.notes"}, "com.example.notes"},
      {".app", {std::nullopt, ""}, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.query);
    EXPECT_EQ(resolveAppQuery(c.query), c.app);
    EXPECT_EQ(deliveryKey(c.app), c.key);
  }
}

class UserInstructions : public ::testing::Test {
protected:
  void write(const std::string &name, const std::string &text) { writeFile(directory_.path() + "/" + name, text); }
  AppInstructionProvider provider() const { return AppInstructionProvider(directory_.path()); }
  TemporaryDirectory directory_;
};

TEST_F(UserInstructions, AreAddedAfterTheBuiltInTextTrimmed) {
  const std::string excel(*builtInInstructions("Excel"));
  write("Excel.md", "\n  Prefer formulas.\n\n");
  write("Spotify.md", " \n\t\n \n");           // blank: ignored
  write("Numbers.md", "bad \xff byte");         // not UTF-8: ignored
  std::filesystem::create_directory(directory_.path() + "/Clock.md"); // not a file
  ASSERT_EQ(::mkfifo((directory_.path() + "/Notion.md").c_str(), 0600), 0); // would block a reader
  write("iPhone Mirroring.md", "Use the Home Screen.");
  write("Notes.md", "Never delivered: no rule names this file.");
  const auto p = provider();
  EXPECT_EQ(p.instructions(std::nullopt, "Excel"), excel + "\n\nPrefer formulas.");
  EXPECT_EQ(p.instructions(std::nullopt, "Spotify"), std::string(*builtInInstructions("Spotify")));
  EXPECT_EQ(p.instructions(std::nullopt, "Numbers"), std::string(*builtInInstructions("Numbers")));
  EXPECT_EQ(p.instructions(std::nullopt, "Clock"), std::string(*builtInInstructions("Clock")));
  EXPECT_EQ(p.instructions(std::nullopt, "Notion"), std::string(*builtInInstructions("Notion")));
  EXPECT_EQ(p.instructions("com.apple.screencontinuity", ""),
            std::string(*builtInInstructions("iPhone Mirroring")) + "\n\nUse the Home Screen.");
  EXPECT_EQ(p.instructions(std::nullopt, "Notes"), std::nullopt);
  EXPECT_EQ(p.readUserInstruction("Excel"), "Prefer formulas.");
  EXPECT_EQ(p.readUserInstruction("Spotify"), std::nullopt);
  EXPECT_EQ(AppInstructionProvider({}).readUserInstruction("Excel"), std::nullopt);
}

TEST(InstructionDeliveryState, DeliversOncePerAppAndOncePerSession) {
  AppInstructionDeliveryState apps;
  EXPECT_TRUE(apps.deliverIfNeeded("com.microsoft.excel"));
  EXPECT_FALSE(apps.deliverIfNeeded("com.microsoft.excel"));
  apps.markDelivered("excel");
  EXPECT_FALSE(apps.deliverIfNeeded("excel"));
  EXPECT_TRUE(apps.deliverIfNeeded("cursor"));

  ComputerUseInstructionDeliveryState sessions("GUIDE");
  const ToolResult result = ToolResult::text("r");
  const ToolResult guided{{ToolResultContent::text("GUIDE"), ToolResultContent::text("r")}, false, std::nullopt};
  EXPECT_EQ(sessions.prependIfNeeded(result, std::nullopt), result);
  EXPECT_EQ(sessions.prependIfNeeded(result, " \n"), result);
  EXPECT_EQ(sessions.prependIfNeeded(result, " a\n"), guided);
  EXPECT_EQ(sessions.prependIfNeeded(result, "a"), result);
  EXPECT_EQ(sessions.prependIfNeeded(result, "b"), guided);
}

const std::string stateReply =
    R"({"content":[{"type":"image","data":"AAAA"},{"type":"text","text":"<app_state>"},{"type":"text","text":"tree"}],"isError":false})";

std::vector<std::string> texts(const json &result) {
  std::vector<std::string> found;
  for (const auto &item : result.at("content"))
    found.push_back(item.value("text", "<" + item.value("type", "") + ">"));
  return found;
}

std::string block(std::string_view baseName) {
  return "<app_specific_instructions>\n" + std::string(*builtInInstructions(baseName)) + "\n</app_specific_instructions>";
}

json getAppState(ToolCallHarness &harness, const std::string &app) {
  return harness.result({{"name", "get_app_state"}, {"arguments", {{"app", app}}}});
}

TEST(AppInstructionDelivery, TheFirstStateOfAnAppCarriesItsInstructionsBeforeTheState) {
  ToolCallHarness harness;
  harness.runtime().scriptDefault(stateReply);
  EXPECT_EQ(texts(getAppState(harness, "Excel")),
            (std::vector<std::string>{"<image>", block("Excel"), "<app_state>", "tree"}));
  EXPECT_EQ(texts(getAppState(harness, "Excel")), (std::vector<std::string>{"<image>", "<app_state>", "tree"}));
  // However the app is named, its advice comes once.
  for (const char *excel : {"excel.app", "Microsoft Excel", "/Applications/Microsoft Excel.app", "com.microsoft.excel"})
    EXPECT_EQ(texts(getAppState(harness, excel)), (std::vector<std::string>{"<image>", "<app_state>", "tree"})) << excel;
  EXPECT_EQ(texts(getAppState(harness, "Cursor")),
            (std::vector<std::string>{"<image>", block("VSCodeLikeIDE"), "<app_state>", "tree"}));
  EXPECT_EQ(texts(getAppState(harness, "com.microsoft.VSCode")), (std::vector<std::string>{"<image>", "<app_state>", "tree"}));
  EXPECT_EQ(texts(getAppState(harness, "Music")),
            (std::vector<std::string>{"<image>", block("AppleMusic"), "<app_state>", "tree"}));
  EXPECT_EQ(texts(getAppState(harness, "Apple Music")), (std::vector<std::string>{"<image>", "<app_state>", "tree"}));
  EXPECT_EQ(texts(getAppState(harness, "Notes")), (std::vector<std::string>{"<image>", "<app_state>", "tree"}));
  // Only get_app_state delivers.
  harness.runtime().scriptDefault(R"({"content":[{"type":"text","text":"<app_state>"}],"isError":false})");
  EXPECT_EQ(texts(harness.result({{"name", "press_key"}, {"arguments", {{"app", "Spotify"}, {"key", "space"}}}})),
            std::vector<std::string>{"<app_state>"});
}

TEST(AppInstructionDelivery, WithoutAStateMarkerTheBlockGoesFirstAndFailuresKeepIt) {
  ToolCallHarness harness;
  harness.runtime().scriptDefault(std::string(R"({"content":[{"type":"text","text":"App not found"}],"isError":true})"));
  EXPECT_EQ(texts(getAppState(harness, "Numbers")), std::vector<std::string>{"App not found"});
  harness.runtime().scriptDefault(
      std::string(R"({"content":[{"type":"text","text":"<app_state> tree"},{"type":"image","data":"AAAA"}],"isError":false})"));
  EXPECT_EQ(texts(getAppState(harness, "Numbers")),
            (std::vector<std::string>{block("Numbers"), "<app_state> tree", "<image>"}));
}

TEST(AppInstructionDelivery, ConcurrentCallsForOneAppDeliverOnce) {
  ToolCallHarness harness;
  harness.runtime().scriptDefault(stateReply);
  std::vector<json> results(8);
  {
    std::vector<std::jthread> threads;
    for (auto &result : results)
      threads.emplace_back([&] { result = getAppState(harness, "Spotify"); });
  }
  int delivered = 0;
  for (const auto &result : results)
    delivered += static_cast<int>(result.at("content").size() == 4);
  EXPECT_EQ(delivered, 1);
}

} // namespace
} // namespace tavix::test
