#include "logging/Logger.h"

#include "fakes/FakeUnifiedLog.h"
#include "logging/LogLineEncoder.h"
#include "support/RequestContext.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>
#include <unistd.h>

namespace tavix {
namespace {

using namespace std::chrono;
using test::FakeUnifiedLog;

void setOrUnset(const char *name, const char *value) {
  value ? setenv(name, value, 1) : unsetenv(name);
}

// Puts environment variables back as they were.
class ScopedEnvironment {
public:
  explicit ScopedEnvironment(std::vector<const char *> names) {
    for (const char *name : names)
      saved_.emplace_back(name,
                          std::getenv(name) ? std::getenv(name) : std::optional<std::string>());
  }
  ~ScopedEnvironment() {
    for (const auto &[name, value] : saved_)
      setOrUnset(name, value ? value->c_str() : nullptr);
  }

private:
  std::vector<std::pair<const char *, std::optional<std::string>>> saved_;
};

class LoggerTest : public ::testing::Test {
protected:
  void SetUp() override {
    unsetenv(logLevelEnvironmentKey);
    unsetenv(osLogMirrorLevelEnvironmentKey);
    setenv("HOME", "/home/tester", 1);
    previous_ = Log::replaceSinks(sinks());
  }
  void TearDown() override { Log::replaceSinks(std::move(previous_)); }

  Log::Sinks sinks() {
    return {[this](std::string_view line) { stderrLines.emplace_back(line); }, unifiedLog,
            [this] { return wallNow; }, [this] { return monotonicNow; }};
  }
  static bool contains(const std::string &line, std::string_view part) {
    return line.find(part) != std::string::npos;
  }

  ScopedEnvironment environment_{{logLevelEnvironmentKey, osLogMirrorLevelEnvironmentKey, "HOME"}};
  Log::Sinks previous_;
  std::vector<std::string> stderrLines; // written under the logger's lock
  std::shared_ptr<FakeUnifiedLog> unifiedLog = std::make_shared<FakeUnifiedLog>();
  system_clock::time_point wallNow = sys_days{2026y / March / 4} + 15h;
  steady_clock::time_point monotonicNow{hours(1)};
};

TEST_F(LoggerTest, RoutesLinesByTheEnvironmentThresholds) {
  struct Case {
    const char *stderrLevel;
    const char *mirrorLevel;
    LogLevel level;
    bool toStderr, toUnified;
  };
  const std::vector<Case> cases = {
      {nullptr, nullptr, LogLevel::debug, false, false},
      {nullptr, nullptr, LogLevel::info, true, true},
      {nullptr, nullptr, LogLevel::fault, true, true},
      {" Warning\n", nullptr, LogLevel::info, false, true},
      {" Warning\n", nullptr, LogLevel::warning, true, true},
      {nullptr, "debug", LogLevel::debug, false, true},
      {"debug", nullptr, LogLevel::debug, true, false},
      {"error", "DEBUG", LogLevel::info, false, true},
      {"fault", "fault", LogLevel::error, false, false},
      {"verbose", "loud", LogLevel::debug, false, false},
      {"verbose", "", LogLevel::info, true, true},
      {"warn", "  ", LogLevel::info, true, true},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case &c = cases[i];
    setOrUnset(logLevelEnvironmentKey, c.stderrLevel);
    setOrUnset(osLogMirrorLevelEnvironmentKey, c.mirrorLevel);
    stderrLines.clear();
    const size_t unifiedBefore = unifiedLog->entries().size();
    Log::log(c.level, LogCategory::tools, "routed");
    EXPECT_EQ(stderrLines.size(), c.toStderr ? 1u : 0u) << "case " << i;
    EXPECT_EQ(unifiedLog->entries().size() - unifiedBefore, c.toUnified ? 1u : 0u) << "case " << i;
  }
}

TEST_F(LoggerTest, WritesOneEncodedLineToBothSinks) {
  Log::warning(LogCategory::tools, "tool_call_started",
               {{"file_path", "/home/tester/a b"}, {"userText", "hi"}, {"n", 3}});
  ASSERT_EQ(stderrLines.size(), 1u);
  const std::string &line = stderrLines[0];
  EXPECT_TRUE(line.starts_with(formatLogTimestamp(wallNow) + " level=warning process=")) << line;
  EXPECT_TRUE(line.ends_with(" pid=" + std::to_string(getpid()) +
                             " category=tools event=tool_call_started"
                             " file_path=\"~/a b\" n=3 userText=[redacted]\n"))
      << line;
  ASSERT_EQ(unifiedLog->entries().size(), 1u);
  EXPECT_EQ(unifiedLog->entries()[0].line, line);
}

TEST_F(LoggerTest, MirrorsWithTheLevelsTypeOnOneHandlePerCategory) {
  setenv(osLogMirrorLevelEnvironmentKey, "debug", 1);
  const std::vector<std::pair<LogLevel, UnifiedLogType>> mapping = {
      {LogLevel::debug, UnifiedLogType::debug},
      {LogLevel::info, UnifiedLogType::info},
      {LogLevel::warning, UnifiedLogType::defaultType},
      {LogLevel::error, UnifiedLogType::error},
      {LogLevel::fault, UnifiedLogType::fault}};
  for (const auto &[level, type] : mapping)
    Log::log(level, LogCategory::appDiscovery, "mapped");
  const auto entries = unifiedLog->entries();
  ASSERT_EQ(entries.size(), mapping.size());
  for (size_t i = 0; i < mapping.size(); ++i) {
    EXPECT_EQ(entries[i].type, mapping[i].second) << i;
    EXPECT_EQ(entries[i].subsystem, "com.tavix.computeruse");
    EXPECT_EQ(entries[i].category, "app-discovery");
    EXPECT_TRUE(contains(entries[i].line, " level=" + std::string(rawValue(mapping[i].first))));
  }
  EXPECT_EQ(unifiedLog->handlesMade(), 1);
  Log::info(LogCategory::ipc, "other");
  Log::info(LogCategory::ipc, "again");
  EXPECT_EQ(unifiedLog->handlesMade(), 2);
  EXPECT_EQ(unifiedLog->entries().back().category, "ipc");

  // A handle whose types are disabled gets nothing; standard error is unaffected.
  unifiedLog->setEnabled(false);
  stderrLines.clear();
  Log::error(LogCategory::ipc, "disabled");
  EXPECT_EQ(unifiedLog->entries().size(), mapping.size() + 2);
  EXPECT_EQ(stderrLines.size(), 1u);
}

TEST_F(LoggerTest, RateLimitedWarningsCountWhatTheySwallow) {
  Log::rateLimitedWarning(LogCategory::transport, "runtime_heartbeat_failed", 120, {{"a", 1}});
  monotonicNow += 60s;
  Log::rateLimitedWarning(LogCategory::transport, "runtime_heartbeat_failed", 120, {{"a", 2}});
  Log::rateLimitedWarning(LogCategory::ipc, "runtime_heartbeat_failed", 120); // another key
  ASSERT_EQ(stderrLines.size(), 2u);
  EXPECT_TRUE(stderrLines[0].ends_with(" category=transport event=runtime_heartbeat_failed a=1\n"))
      << stderrLines[0];
  EXPECT_TRUE(contains(stderrLines[0], " level=warning "));
  EXPECT_FALSE(contains(stderrLines[0], "suppressedCount"));
  EXPECT_TRUE(contains(stderrLines[1], " category=ipc "));

  monotonicNow += 60s; // 120 s after the first: the interval is over
  Log::rateLimitedWarning(LogCategory::transport, "runtime_heartbeat_failed", 120, {{"a", 3}});
  ASSERT_EQ(stderrLines.size(), 3u);
  EXPECT_TRUE(stderrLines[2].ends_with(" event=runtime_heartbeat_failed a=3 suppressedCount=1\n"))
      << stderrLines[2];

  monotonicNow += 121s; // nothing swallowed since the last line
  Log::rateLimitedWarning(LogCategory::transport, "runtime_heartbeat_failed", 120);
  ASSERT_EQ(stderrLines.size(), 4u);
  EXPECT_FALSE(contains(stderrLines[3], "suppressedCount"));
}

TEST_F(LoggerTest, RateLimitIntervalsBelowOneSecondCountAsOne) {
  for (double interval : {0.5, 0.0, -3.0, std::nan("")}) {
    Log::replaceSinks(sinks()); // forgets the rate-limit state
    stderrLines.clear();
    Log::rateLimitedWarning(LogCategory::input, "tick", interval);
    monotonicNow += 999ms;
    Log::rateLimitedWarning(LogCategory::input, "tick", interval);
    monotonicNow += 1ms;
    Log::rateLimitedWarning(LogCategory::input, "tick", interval);
    ASSERT_EQ(stderrLines.size(), 2u) << interval;
    EXPECT_TRUE(stderrLines[1].ends_with(" event=tick suppressedCount=1\n")) << interval;
  }
}

TEST_F(LoggerTest, EmergencyFaultGoesOnlyToTheUnifiedLog) {
  setenv(logLevelEnvironmentKey, "fault", 1);
  setenv(osLogMirrorLevelEnvironmentKey, "fault", 1);
  Log::emergencyUnifiedFault(LogCategory::logging, "stderr_unusable", {{"errno", 5}});
  EXPECT_TRUE(stderrLines.empty());
  const auto entries = unifiedLog->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].type, UnifiedLogType::fault);
  EXPECT_EQ(entries[0].category, "logging");
  EXPECT_TRUE(entries[0].line.ends_with(" category=logging event=stderr_unusable errno=5\n"))
      << entries[0].line;
  EXPECT_TRUE(contains(entries[0].line, " level=fault "));
}

TEST_F(LoggerTest, LinesCarryTheRequestOfTheirThread) {
  {
    WithRequestContext scope(std::make_shared<RequestContext>("req-42", std::stop_token()));
    Log::info(LogCategory::tools, "inside", {{"a", 1}});
  }
  Log::info(LogCategory::tools, "outside");
  ASSERT_EQ(stderrLines.size(), 2u);
  EXPECT_TRUE(stderrLines[0].ends_with(" event=inside requestId=req-42 a=1\n")) << stderrLines[0];
  EXPECT_FALSE(contains(stderrLines[1], "requestId")) << stderrLines[1];

  stderrLines.clear();
  auto worker = [](std::string id) {
    WithRequestContext scope(std::make_shared<RequestContext>(id, std::stop_token()));
    for (int i = 0; i < 100; ++i)
      Log::info(LogCategory::tools, "from_" + id);
  };
  std::thread first(worker, "A"), second(worker, "B");
  first.join();
  second.join();
  ASSERT_EQ(stderrLines.size(), 200u);
  for (const std::string &line : stderrLines)
    EXPECT_TRUE(line.ends_with(" event=from_A requestId=A\n") ||
                line.ends_with(" event=from_B requestId=B\n"))
        << line;
}

TEST_F(LoggerTest, ConcurrentWritersToStandardErrorNeverInterleave) {
  constexpr int threads = 8, linesPerThread = 200;
  auto sinks = this->sinks();
  sinks.writeStderr = &Log::writeLineToStderr;
  sinks.unifiedLog = nullptr;
  Log::replaceSinks(sinks);

  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  const int savedStderr = dup(STDERR_FILENO);
  ASSERT_GE(savedStderr, 0);
  std::string output;
  std::thread reader([&] {
    char buffer[65536];
    for (ssize_t n; (n = read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
      output.append(buffer, static_cast<size_t>(n));
  });
  dup2(pipeEnds[1], STDERR_FILENO);
  close(pipeEnds[1]);

  // Lines well beyond the size a pipe writes atomically on its own.
  const std::string padding(1000, 'x');
  LogFields fields;
  std::string encodedFields;
  for (int i = 0; i < 6; ++i) {
    fields["p" + std::to_string(i)] = padding;
    encodedFields += " p" + std::to_string(i) + "=" + padding;
  }
  std::vector<std::thread> writers;
  for (int t = 0; t < threads; ++t)
    writers.emplace_back([&, t, fields]() mutable {
      fields["thread"] = t;
      for (int s = 0; s < linesPerThread; ++s) {
        fields["seq"] = s;
        Log::info(LogCategory::tools, "concurrent_line", fields);
      }
    });
  for (std::thread &writer : writers)
    writer.join();
  dup2(savedStderr, STDERR_FILENO); // also closes the pipe's last write end
  close(savedStderr);
  reader.join();
  close(pipeEnds[0]);

  const std::string head = formatLogTimestamp(wallNow) + " level=info process=";
  std::vector<int> seen(threads * linesPerThread, 0);
  size_t lines = 0;
  for (size_t start = 0; start < output.size(); ++lines) {
    const size_t end = output.find('\n', start);
    ASSERT_NE(end, std::string::npos) << "unterminated last line";
    const std::string line = output.substr(start, end - start);
    start = end + 1;
    const size_t seqAt = line.rfind(" seq=");
    ASSERT_TRUE(line.starts_with(head) && seqAt != std::string::npos) << line.substr(0, 200);
    int s = -1, t = -1;
    ASSERT_EQ(std::sscanf(line.c_str() + seqAt, " seq=%d thread=%d", &s, &t), 2);
    ASSERT_TRUE(s >= 0 && s < linesPerThread && t >= 0 && t < threads) << line.substr(seqAt);
    const std::string tail = " category=tools event=concurrent_line" + encodedFields +
                             " seq=" + std::to_string(s) + " thread=" + std::to_string(t);
    ASSERT_TRUE(line.ends_with(tail)) << "line " << lines << " is not whole";
    ++seen[t * linesPerThread + s];
  }
  EXPECT_EQ(lines, seen.size());
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), static_cast<long>(seen.size()));
}

} // namespace
} // namespace tavix
