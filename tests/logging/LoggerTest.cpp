// The logger: which sinks a line reaches at each level, what it carries, rate limits, and
// one whole line at a time from concurrent writers.

#include "logging/Logger.h"

#include "fakes/FakeUnifiedLog.h"
#include "logging/LogLineEncoder.h"
#include "support/HomeDirectory.h"
#include "support/RequestContext.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <thread>
#include <unistd.h>

namespace tavix {
namespace {

using namespace std::chrono;
using enum TavixComputerUseLogLevel; // clang 14 takes no alias here
using ::testing::_, ::testing::ElementsAre, ::testing::EndsWith;

void setOrUnset(const char *name, const char *value) { value ? setenv(name, value, 1) : unsetenv(name); }

// The test binary runs without the level variables (see TestMain.cpp); a test sets them.
class LoggerTest : public ::testing::Test {
protected:
  ~LoggerTest() override {
    unsetenv(logLevelEnvironmentKey), unsetenv(osLogMirrorLevelEnvironmentKey);
    Log::replaceSinks(std::move(previous_));
  }
  // Fresh sinks, which also forget cached handles and rate-limit state. A line written
  // while another is being written fails the test.
  Log::Sinks sinks() {
    return {[this](std::string_view line) {
              EXPECT_FALSE(writing_.exchange(true)) << "two lines written at once";
              stderrLines.emplace_back(line);
              std::this_thread::yield();
              writing_ = false;
            },
            unifiedLog, [this] { return wallNow; }, [this] { return monotonicNow; }};
  }

  std::atomic<bool> writing_ = false;
  std::vector<std::string> stderrLines;
  std::shared_ptr<test::FakeUnifiedLog> unifiedLog = std::make_shared<test::FakeUnifiedLog>();
  system_clock::time_point wallNow = sys_days{2026y / March / 4} + 15h;
  steady_clock::time_point monotonicNow{hours(1)};
  Log::Sinks previous_ = Log::replaceSinks(sinks());
};

TEST_F(LoggerTest, RoutesLinesByTheEnvironmentThresholds) {
  // The two thresholds, a line's level, and how many lines reach standard error and the unified log.
  // clang-format off
  const std::tuple<const char *, const char *, LogLevel, size_t, size_t> cases[] = {
      {nullptr, nullptr, debug, 0, 0},   {nullptr, nullptr, info, 1, 1},  {nullptr, nullptr, fault, 1, 1},
      {" Warning\n", nullptr, info, 0, 1}, {" Warning\n", nullptr, warning, 1, 1}, {nullptr, "debug", debug, 0, 1},
      {"debug", nullptr, debug, 1, 0},   {"error", "DEBUG", info, 0, 1},  {"fault", "fault", error, 0, 0},
      {"verbose", "loud", debug, 0, 0},  {"verbose", "", info, 1, 1},     {"warn", "  ", info, 1, 1}};
  // clang-format on
  for (size_t row = 0; row < std::size(cases); ++row) {
    const auto &[stderrLevel, mirrorLevel, level, toStderr, toUnified] = cases[row];
    setOrUnset(logLevelEnvironmentKey, stderrLevel), setOrUnset(osLogMirrorLevelEnvironmentKey, mirrorLevel);
    const auto before = std::pair(stderrLines.size(), unifiedLog->entries().size());
    Log::log(level, LogCategory::tools, "routed");
    EXPECT_EQ(std::pair(stderrLines.size() - before.first, unifiedLog->entries().size() - before.second),
              std::pair(toStderr, toUnified)) << "row " << row;
  }
}

// One encoded line, the same in both sinks, each level with its type, on one handle per
// category; an emergency fault reaches only the unified log; a handle whose types are
// disabled gets nothing, standard error is unaffected.
TEST_F(LoggerTest, WritesOneLineToStandardErrorAndMirrorsItWithTheLevelsType) {
  Log::warning(LogCategory::tools, "tool_call_started", {{"file_path", homeDirectory() + "/a b"}, {"userText", "hi"}, {"n", 3}});
  ASSERT_EQ(stderrLines.size(), 1u);
  EXPECT_TRUE(stderrLines[0].starts_with(formatLogTimestamp(wallNow) + " level=warning process="));
  EXPECT_TRUE(stderrLines[0].ends_with(" pid=" + std::to_string(getpid()) + " category=tools event=tool_call_started"
                                       " file_path=\"~/a b\" n=3 userText=[redacted]\n")) << stderrLines[0];
  setenv(logLevelEnvironmentKey, "fault", 1), setenv(osLogMirrorLevelEnvironmentKey, "fault", 1);
  Log::emergencyUnifiedFault(LogCategory::logging, "stderr_unusable", {{"errno", 5}});
  EXPECT_EQ(stderrLines.size(), 1u);
  unsetenv(logLevelEnvironmentKey), setenv(osLogMirrorLevelEnvironmentKey, "debug", 1);
  for (LogLevel level : allLogLevels)
    Log::log(level, LogCategory::appDiscovery, "mapped");
  Log::info(LogCategory::ipc, "other");
  unifiedLog->setEnabled(false);
  Log::fault(LogCategory::ipc, "disabled");
  EXPECT_TRUE(stderrLines.back().ends_with(" event=disabled\n"));
  const auto entries = unifiedLog->entries();
  ASSERT_EQ(entries.size(), 8u);
  EXPECT_EQ(entries[0].line, stderrLines[0]);
  EXPECT_TRUE(entries[1].line.starts_with(formatLogTimestamp(wallNow) + " level=fault ")) << entries[1].line;
  EXPECT_TRUE(entries[1].line.ends_with(" category=logging event=stderr_unusable errno=5\n")) << entries[1].line;
  std::vector<std::pair<std::string, UnifiedLogType>> mirrored;
  for (const auto &entry : entries)
    mirrored.emplace_back(entry.subsystem + " " + entry.category, entry.type);
  const std::string discovery = "com.tavix.computeruse app-discovery";
  using enum UnifiedLogType;
  EXPECT_EQ(mirrored, (decltype(mirrored){{"com.tavix.computeruse tools", defaultType},
                                          {"com.tavix.computeruse logging", fault}, {discovery, debug},
                                          {discovery, info}, {discovery, defaultType}, {discovery, error},
                                          {discovery, fault}, {"com.tavix.computeruse ipc", info}}));
  EXPECT_EQ(unifiedLog->handlesMade(), 4);
}

// Calls at the given milliseconds after the first, with their index as a field; a line
// comes out of those whose line ending is given.
TEST_F(LoggerTest, RateLimitedWarningsCountWhatTheySwallow) {
  const std::tuple<int, LogCategory, const char *> calls[] = {
      {0, LogCategory::transport, " level=warning "},
      {60000, LogCategory::transport, nullptr},
      {60000, LogCategory::ipc, " category=ipc event=overloaded a=2\n"}, // another key
      {119999, LogCategory::transport, nullptr},
      {120000, LogCategory::transport, " category=transport event=overloaded a=4 suppressedCount=2\n"},
      {241000, LogCategory::transport, " category=transport event=overloaded a=5\n"}};
  for (int i = 0; const auto &[at, category, ending] : calls) {
    stderrLines.clear();
    monotonicNow = steady_clock::time_point(hours(1) + milliseconds(at));
    Log::rateLimitedWarning(category, "overloaded", 120, {{"a", i++}});
    ASSERT_EQ(stderrLines.size(), ending ? 1u : 0u) << at;
    EXPECT_TRUE(!ending || stderrLines[0].find(ending) != std::string::npos) << stderrLines[0];
  }
}

TEST_F(LoggerTest, RateLimitIntervalsBelowOneSecondCountAsOne) {
  for (double interval : {0.5, 0.0, -3.0, std::nan("")}) {
    Log::replaceSinks(sinks()), stderrLines.clear();
    for (milliseconds step : {0ms, 999ms, 1ms})
      monotonicNow += step, Log::rateLimitedWarning(LogCategory::input, "tick", interval);
    EXPECT_THAT(stderrLines, ElementsAre(_, EndsWith(" event=tick suppressedCount=1\n"))) << interval;
  }
}

TEST_F(LoggerTest, ConcurrentLinesCarryTheRequestOfTheirThreadUntilItsScopeEnds) {
  auto worker = [](std::string id) {
    {
      WithRequestContext scope(std::make_shared<RequestContext>(id, std::stop_token()));
      for (int i = 0; i < 200; ++i)
        Log::info(LogCategory::tools, "in_" + id, {{"a", 1}});
    }
    Log::info(LogCategory::tools, "after_" + id);
  };
  { std::jthread first(worker, "A"), second(worker, "B"); }
  std::map<std::string, int> endings; // from the event on
  for (const std::string &line : stderrLines)
    ++endings[line.substr(line.find(" event="))];
  EXPECT_EQ(endings, (std::map<std::string, int>{{" event=after_A\n", 1}, {" event=after_B\n", 1},
                                                 {" event=in_A requestId=A a=1\n", 200},
                                                 {" event=in_B requestId=B a=1\n", 200}}));
}

} // namespace
} // namespace tavix
