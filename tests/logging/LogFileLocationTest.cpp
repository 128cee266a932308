// Choosing the log file: explicit directories, the host's session directories, and
// directories made when none exists, in temporary directories.

#include "logging/LogFileLocation.h"

#include "fakes/CapturedLog.h"
#include "fakes/FakeUnifiedLog.h"
#include "testing/ScopedTimeZone.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace tavix::test {
namespace {

using namespace std::chrono;
using ::testing::ElementsAre;
namespace fs = std::filesystem;

EnvironmentLookup environmentOf(std::map<std::string, std::string> variables) {
  return [variables](const char *name) -> std::optional<std::string> {
    const auto found = variables.find(name);
    return found == variables.end() ? std::nullopt : std::optional(found->second);
  };
}

const auto march4 = sys_days{2026y / March / 4} + 15h + 7min + 9s;

TEST(LogFileLocation, ExplicitDirectoriesAreTrimmedAndTheFirstNonBlankWins) {
  const std::vector<std::pair<std::map<std::string, std::string>, std::optional<std::string>>> cases = {
      {{}, std::nullopt},
      {{{"TAVIX_CU_LOG_DIR", " /a \n"}}, "/a"},
      {{{"TAVIX_CU_LOG_DIR", "/a"}, {"TAVIX_IDE_LOGS_HOME", "/b"}}, "/a"},
      {{{"TAVIX_CU_LOG_DIR", " \t"}, {"TAVIX_IDE_LOGS_HOME", "/b"}}, "/b"},
      {{{"TAVIX_CU_LOG_DIR", ""}, {"TAVIX_IDE_LOGS_HOME", "\n"}}, std::nullopt},
  };
  for (const auto &[variables, expected] : cases)
    EXPECT_EQ(explicitLogDirectory(environmentOf(variables)), expected);
}

TEST(LogFileLocation, TheLogsRootFollowsTheConfigurationDirectoryAndTheCNBundle) {
  EXPECT_TRUE(isTavixCNBundleIdentifier(" COM.tavix.cn.ComputerUse\n"));
  EXPECT_TRUE(isTavixCNBundleIdentifier("com.tavix.cn.computeruse.bridge"));
  EXPECT_FALSE(isTavixCNBundleIdentifier("com.tavix.cn.computeruse.runtime"));
  EXPECT_FALSE(isTavixCNBundleIdentifier("com.tavix.computeruse.bridge"));
  EXPECT_FALSE(isTavixCNBundleIdentifier(std::nullopt));

  EXPECT_EQ(defaultTavixLogsRoot(std::nullopt, "/home/u", environmentOf({})),
            "/home/u/.config/Tavix/logs");
  EXPECT_EQ(defaultTavixLogsRoot("com.tavix.cn.computeruse", "/home/u",
                                 environmentOf({{"XDG_CONFIG_HOME", "/cfg"}})),
            "/cfg/TavixCN/logs");
}

TEST(LogFileLocation, SessionDirectoriesAreNamedForTheLocalTime) {
  const bool named = fs::exists("/usr/share/zoneinfo/Asia/Shanghai");
  {
    ScopedTimeZone zone("UTC0");
    EXPECT_EQ(timestampDirectoryName(march4), "20260304T150709");
    EXPECT_EQ(timestampDirectoryName(sys_days{2026y / December / 31} + 23h + 59min + 59s + 999ms),
              "20261231T235959");
  }
  ScopedTimeZone zone(named ? "Asia/Shanghai" : "CST-8");
  EXPECT_EQ(timestampDirectoryName(march4), "20260304T230709");
  EXPECT_EQ(timestampDirectoryName(march4 + 1h), "20260305T000709");
}

TEST(LogFileLocation, OnlyWellFormedTimestampsCountAsSessions) {
  for (const char *name : {"20260304T150709", "19991231T235959", "20240229T000000"})
    EXPECT_TRUE(isTimestampDirectoryName(name)) << name;
  for (const char *name : {"2026-01-01", "20260304T15070", "20260304T1507090", "20260304t150709",
                           "2026030AT150709", "20260304T15070x", "20261304T150709",
                           "20260004T150709", "20260332T150709", "20260304T240000",
                           "20260304T156000", " 0260304T150709", ""})
    EXPECT_FALSE(isTimestampDirectoryName(name)) << name;
}

TEST(LogFileLocation, TheNewestSessionWithAMarkerIsChosenElseTheNewest) {
  TemporaryDirectory root;
  fs::create_directories(root / "20260101T000000");
  fs::create_directories(root / "20260102T000000");
  fs::create_directories(root / "2026-01-03");
  fs::create_directories(root / "2026010AT000000");
  writeFile(root / "20260104T000000", "a file, not a session");
  EXPECT_THAT(timestampLogDirectories(root.path()), ElementsAre("20260102T000000", "20260101T000000"));
  EXPECT_EQ(resolveLatestTavixLogDirectory(root.path(), march4), root / "20260102T000000");

  writeFile(root / "20260101T000000/main.log", "");
  EXPECT_EQ(resolveLatestTavixLogDirectory(root.path(), march4), root / "20260101T000000");
  writeFile(root / "20260102T000000/sharedprocess.log", "");
  EXPECT_EQ(resolveLatestTavixLogDirectory(root.path(), march4), root / "20260102T000000");
  // Marker names are exact.
  fs::create_directories(root / "20260105T000000");
  writeFile(root / "20260105T000000/main.log.old", "");
  EXPECT_EQ(resolveLatestTavixLogDirectory(root.path(), march4), root / "20260102T000000");
}

TEST(LogFileLocation, AnEmptyOrMissingRootGetsASessionForNow) {
  ScopedTimeZone zone("UTC0");
  TemporaryDirectory base;
  for (const std::string &root : {base / "empty", base / "missing/logs"}) {
    if (root.ends_with("empty"))
      fs::create_directories(root);
    EXPECT_EQ(resolveLatestTavixLogDirectory(root, march4), root + "/20260304T150709");
    EXPECT_TRUE(fs::is_directory(root + "/20260304T150709"));
  }
}

TEST(LogFileLocation, TheFileIsInTheExplicitDirectoryElseInTheHostSession) {
  ScopedTimeZone zone("UTC0");
  TemporaryDirectory home;
  EXPECT_EQ(resolveLogFileURL(environmentOf({{"TAVIX_CU_LOG_DIR", " "},
                                             {"TAVIX_IDE_LOGS_HOME", home / "ide/logs"}}),
                              march4, std::nullopt, home.path()),
            home / "ide/logs/computer-use-runtime.log");
  EXPECT_TRUE(fs::is_directory(home / "ide/logs"));
  EXPECT_EQ(resolveLogFileURL(environmentOf({{"TAVIX_CU_LOG_DIR", home / "explicit/"}}), march4,
                              std::nullopt, home.path()),
            home / "explicit/computer-use-runtime.log");

  fs::create_directories(home / ".config/TavixCN/logs/20260101T000000");
  EXPECT_EQ(resolveLogFileURL(environmentOf({}), march4, "com.tavix.cn.computeruse.bridge",
                              home.path()),
            home / ".config/TavixCN/logs/20260101T000000/computer-use-runtime.log");
  EXPECT_EQ(resolveLogFileURL(environmentOf({}), march4, std::nullopt, home.path()),
            home / ".config/Tavix/logs/20260304T150709/computer-use-runtime.log");
}

TEST(LogFileLocation, ADirectoryThatCannotBeMadeIsReportedToTheSystemLogOnly) {
  TemporaryDirectory home;
  writeFile(home / "blocker", "a file where a directory should go");
  const auto unified = std::make_shared<FakeUnifiedLog>();
  const CapturedLog log(unified);
  EXPECT_EQ(resolveLogFileURL(environmentOf({{"TAVIX_CU_LOG_DIR", home / "blocker/logs"}}), march4,
                              std::nullopt, home.path()),
            home / "blocker/logs/computer-use-runtime.log");
  EXPECT_TRUE(log.lines().empty());
  const auto entries = unified->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].category, "logging");
  EXPECT_EQ(entries[0].type, UnifiedLogType::fault);
  EXPECT_THAT(entries[0].line, ::testing::HasSubstr(" event=log_directory_create_failed directoryPath="));
  EXPECT_THAT(entries[0].line, ::testing::HasSubstr("/blocker/logs error=\"std::error_code(domain=generic,code=20)\"\n"));
}

} // namespace
} // namespace tavix::test
