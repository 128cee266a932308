// The log file, in temporary directories: where it goes (an explicit directory or the
// host's newest session), its compaction, also by several processes at once, and the
// redirection of a descriptor that stands for standard error into it.

#include "TestPaths.h"
#include "logging/LogFileCompaction.h"
#include "logging/LogFileLocation.h"
#include "logging/RepeatingTimer.h"
#include "logging/TavixComputerUseLogFile.h"

#include "fakes/CapturedLog.h"
#include "fakes/FakeUnifiedLog.h"
#include "testing/ChildProcess.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace tavix::test {
namespace {

using namespace std::chrono;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

const auto march4 = sys_days{2026y / March / 4} + 15h + 7min + 9s;

// The first three are sessions' names.
TEST(LogFileLocation, OnlyWellFormedTimestampsCountAsSessions) {
  const std::vector<std::string> names = {"19991231T235959", "20240229T000000", "20260101T000060", "2026-01-01",
      "20260304T15070", "20260304T1507090", "20260304t150709", "2026030AT150709", "20260304T15070x", "20261304T150709",
      "20260004T150709", "20260332T150709", "20260300T150709", "20260304T240000", "20260304T156000", "20260304T150761", ""};
  for (size_t i = 0; i < names.size(); ++i)
    EXPECT_EQ(isTimestampDirectoryName(names[i]), i < 3) << names[i];
}

TEST(LogFileLocation, TheNewestSessionWithAMarkerIsChosenElseTheNewest) {
  TemporaryDirectory root;
  for (const char *name : {"20260101T000000", "20260102T000000", "2026-01-03", "2026010AT000000"})
    fs::create_directories(root / name);
  writeFile(root / "20260104T000000", "a file, not a session");
  EXPECT_THAT(timestampLogDirectories(root.path()), ::testing::ElementsAre("20260102T000000", "20260101T000000"));
  // The marker files written in turn, and the session chosen after each.
  for (const auto &[marker, chosen] : {std::pair{"", "20260102T000000"}, {"20260101T000000/main.log", "20260101T000000"},
                                       {"20260102T000000/sharedprocess.log", "20260102T000000"},
                                       {"20260105T000000/main.log.old", "20260102T000000"}}) { // marker names are exact
    if (*marker)
      writeFile(root / marker, "");
    EXPECT_EQ(resolveLatestTavixLogDirectory(root.path(), march4), root / chosen) << marker;
  }
}

// TAVIX_CU_LOG_DIR, else TAVIX_IDE_LOGS_HOME, trimmed; when both are blank, the host's
// newest session, or a new one named for now.
TEST(LogFileLocation, TheFileIsInTheExplicitDirectoryElseInTheHostSession) {
  TemporaryDirectory home;
  const std::string now = timestampDirectoryName(march4), file = "/computer-use-runtime.log";
  const auto resolve = [&](std::map<std::string, std::string> variables, std::optional<std::string> bundle = {}) {
    return resolveLogFileURL([&](const char *name) -> std::optional<std::string> {
      return variables.contains(name) ? std::optional(variables[name]) : std::nullopt;
    }, march4, bundle, home.path());
  };
  EXPECT_EQ(resolve({{"TAVIX_CU_LOG_DIR", " " + home / "a/" + "\n"}, {"TAVIX_IDE_LOGS_HOME", "/b"}}), home / "a" + file);
  EXPECT_EQ(resolve({{"TAVIX_CU_LOG_DIR", " \t"}, {"TAVIX_IDE_LOGS_HOME", home / "ide/logs"}}), home / "ide/logs" + file);
  EXPECT_TRUE(fs::is_directory(home / "ide/logs"));
  // The CN host's logs root (its identifiers in any case, trimmed), with a session there.
  fs::create_directories(home / ".config/TavixCN/logs/20260101T000000");
  EXPECT_EQ(resolve({{"TAVIX_CU_LOG_DIR", ""}, {"TAVIX_IDE_LOGS_HOME", "\n"}}, " COM.tavix.cn.computeruse.Bridge\n"),
            home / ".config/TavixCN/logs/20260101T000000" + file);
  EXPECT_EQ(resolve({{"XDG_CONFIG_HOME", home / "cfg"}}, "com.tavix.cn.computeruse"),
            home / ("cfg/TavixCN/logs/" + now) + file);
  // Any other identifier, or none: the main host's root.
  EXPECT_EQ(resolve({}, "com.tavix.cn.computeruse.runtime"), home / (".config/Tavix/logs/" + now) + file);
  EXPECT_TRUE(fs::is_directory(home / (".config/Tavix/logs/" + now)));
  EXPECT_FALSE(isTavixCNBundleIdentifier(std::nullopt));
}

constexpr int64_t MiB = 1024 * 1024;

// With the default limits, a file one byte short of 5 MiB is left alone; one of 5 MiB
// keeps at most its last 4 MiB, from the start of a line, and then the notice.
TEST(LogFileCompaction, AtFiveMiBAFileKeepsItsLastFourMiBFromALineStartThenTheNotice) {
  TemporaryDirectory directory;
  const std::string path = directory / "computer-use-runtime.log";
  std::string original;
  for (int i = 0; original.size() + 100 < 5 * MiB; ++i) // numbered lines of 100 bytes
    original += "line " + std::to_string(1000000 + i) + " " + std::string(86, '.') + "\n";
  original.resize(5 * MiB - 1, 'x');
  writeFile(path, original);
  EXPECT_FALSE(compactLogFileIfNeeded(path));
  EXPECT_TRUE(readFile(path) == original); // not EXPECT_EQ: no diff of megabytes
  writeFile(path, original += "\n");
  const CapturedLog log; // the notice is written to the file, never through the logger
  EXPECT_TRUE(compactLogFileIfNeeded(path));
  EXPECT_TRUE(log.lines().empty());

  const std::string compacted = readFile(path);
  const size_t noticeStart = compacted.rfind('\n', compacted.size() - 2) + 1;
  const std::string kept = compacted.substr(0, noticeStart), notice = compacted.substr(noticeStart);
  EXPECT_THAT(notice, ::testing::AllOf(HasSubstr(" level=warning "), ::testing::EndsWith(
      " category=logging event=log_compacted previousBytes=5242880 reason=size_limit\n")));
  EXPECT_TRUE(kept.size() <= 4 * MiB && kept.size() > 4 * MiB - 100) << kept.size();
  EXPECT_TRUE(original.ends_with(kept) && kept.starts_with("line ")) << kept.substr(0, 40); // the end, unchanged
  // Below the limit now: a second run leaves the file alone; a missing file stays missing.
  EXPECT_FALSE(compactLogFileIfNeeded(path));
  EXPECT_TRUE(readFile(path) == compacted);
  EXPECT_FALSE(compactLogFileIfNeeded(directory / "missing.log"));
  EXPECT_FALSE(fs::exists(directory / "missing.log"));
  // A tail without a line break is kept whole.
  writeFile(path, std::string(5000, 'x'));
  EXPECT_TRUE(compactLogFileIfNeeded(path, {4096, 1000}));
  EXPECT_THAT(readFile(path), ::testing::MatchesRegex("x{1000}2\\S+ level=warning .* previousBytes=5000 reason=size_limit\n"));
}

TEST(LogFileCompaction, ConcurrentWritersAndCompactorsLoseNoLaterLineAndNeverInterleave) {
  TemporaryDirectory directory;
  constexpr long lines = 2000;
  // Three processes of two threads each, every thread also compacting. Each compaction
  // drops only the oldest 64 KiB, so that the final file still spans many compactions
  // and a line lost in any of them shows as a gap.
  std::deque<ChildProcess> processes;
  for (const char *name : {"alpha", "beta", "gamma"})
    processes.emplace_back(std::vector<std::string>{TAVIX_LOG_WRITER_EXECUTABLE, directory.path(), name,
                                                    std::to_string(lines), "20", "1048576", "983040"});
  for (auto &process : processes)
    ASSERT_EQ(process.wait(seconds(120)), 0);

  // Every line is whole: a writer's line, a compaction notice or a writer's first line.
  static const std::regex wholeLine(
      R"(\S+ level=(info|warning) process=\S+ pid=\d+ category=logging event=(test_line )"
      R"(padding=-{120} sequence=(\d+) writer=(\w+)|log_compacted previousBytes=\d+ )"
      R"(reason=size_limit|stderr_sink_attached logPath=\S+))");
  // Compaction only ever drops the start of the file, so what is left of each writer is
  // an unbroken run that ends with its last line.
  std::map<std::string, long> last;
  int notices = 0;
  std::istringstream text(readFile(directory / "computer-use-runtime.log"));
  for (std::string line; std::getline(text, line);) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, wholeLine)) << "a broken line: " << line;
    notices += match[2].str().starts_with("log_compacted");
    if (const std::string writer = match[4]; match[4].matched) {
      ASSERT_TRUE(!last.contains(writer) || std::stol(match[3]) == last[writer] + 1) << writer << ": lost after " << last[writer];
      last[writer] = std::stol(match[3]);
    }
  }
  EXPECT_GE(notices, 1);
  EXPECT_EQ(last.size(), 6u);
  for (const auto &[writer, sequence] : last)
    EXPECT_EQ(sequence, lines - 1) << writer;
}

class StderrRedirectionTest : public ::testing::Test {
protected:
  ~StderrRedirectionTest() override { ::close(target_); }

  // Over an explicit log directory, or else the host's sessions under the home directory.
  StderrRedirection redirectionTo(std::optional<std::string> logDirectory, LogFileLimits limits = {}) {
    return StderrRedirection({.environment = [logDirectory](const char *name) {
                                return std::string_view(name) == "TAVIX_CU_LOG_DIR" ? logDirectory : std::nullopt;
                              },
                              .now = [] { return march4; }, .homeDirectory = [this] { return home_.path(); },
                              .targetDescriptor = target_, .limits = limits});
  }
  // The file the descriptor points at now.
  fs::path target() const { return fs::read_symlink("/proc/self/fd/" + std::to_string(target_)); }

  TemporaryDirectory home_;
  const std::string logPath_ = home_ / "logs/computer-use-runtime.log";
  int target_ = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  const std::shared_ptr<FakeUnifiedLog> unifiedLog_ = std::make_shared<FakeUnifiedLog>();
  const CapturedLog log_{unifiedLog_};
};

// Each run follows the host to its newest session. Nothing else opens files meanwhile, so
// the first file gets the lowest free number: that of the closed target. It keeps it, open
// across exec, appending and readable by all.
TEST_F(StderrRedirectionTest, EachRunFollowsTheHostToItsNewestSessionUnderTheTargetsNumber) {
  ::close(target_);
  auto redirection = redirectionTo(std::nullopt);
  for (const std::string session : {"20260101T000000", "20260102T000000"}) {
    const std::string directory = home_ / (".config/Tavix/logs/" + session);
    writeFile(directory + "/main.log", "");
    const mode_t previousMask = ::umask(0);
    redirection.redirectIfNeeded();
    ::umask(previousMask);
    EXPECT_EQ(target(), directory + "/computer-use-runtime.log");
    EXPECT_EQ(fs::status(target()).permissions(), fs::perms(0644));
  }
  EXPECT_EQ(::fcntl(target_, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(::fcntl(target_, F_GETFL) & O_APPEND, O_APPEND);
  EXPECT_EQ(log_.withEvent("stderr_sink_attached").size(), 2u);
}

// A file where the log directory should be: neither the directory nor the file can be
// made, which only the system log hears of, and the descriptor stays where it was. Once the
// obstacle is gone, the next run attaches: an oversized file is compacted first, then the
// descriptor appends to it.
TEST_F(StderrRedirectionTest, FailuresTellOnlyTheSystemLogThenTheDescriptorAppendsToTheCompactedFile) {
  writeFile(home_ / "logs", "");
  auto redirection = redirectionTo(home_ / "logs", {4096, 2500});
  redirection.redirectIfNeeded();
  EXPECT_EQ(target(), "/dev/null");
  EXPECT_EQ(redirection.currentLogPath(), std::nullopt);
  EXPECT_TRUE(log_.lines().empty());
  std::vector<std::string> faults;
  for (const auto &entry : unifiedLog_->entries())
    faults.push_back(entry.type == UnifiedLogType::fault ? entry.line : "not a fault: " + entry.line);
  EXPECT_THAT(faults, ::testing::ElementsAre(
      ::testing::MatchesRegex("\\S+ level=fault .* category=logging event=log_directory_create_failed directoryPath=\\S+"
                              "/logs error=\"std::error_code\\(domain=generic,code=20\\)\"\n"),
      ::testing::MatchesRegex("\\S+ level=fault .* event=log_file_open_failed errno=20 logPath=\\S+\n")));

  fs::remove(home_ / "logs");
  writeFile(logPath_, std::string(3000, 'a') + "\n" + std::string(2000, 'b') + "\n");
  redirection.redirectIfNeeded();
  EXPECT_EQ(target(), logPath_);
  EXPECT_EQ(redirection.currentLogPath(), logPath_);
  ASSERT_EQ(::write(target_, "later\n", 6), 6);
  EXPECT_THAT(readFile(logPath_), ::testing::MatchesRegex(
      "b{2000}\n\\S+ level=warning .* event=log_compacted previousBytes=5002 reason=size_limit\nlater\n"));
  // The same file on the next run: nothing moves and nothing more is logged.
  redirection.redirectIfNeeded();
  EXPECT_THAT(log_.withEvent("stderr_sink_attached"), ::testing::ElementsAre(::testing::MatchesRegex(
      "\\S+ level=info .* category=logging event=stderr_sink_attached logPath=\\S+/logs/computer-use-runtime.log\n")));
}

// Destroys the timer on a thread of its own and says whether that ended within five
// seconds, so that a timer that does not stop fails the test instead of hanging it.
bool destroyedAtOnce(std::unique_ptr<RepeatingTimer> timer) {
  auto destroyed = std::make_shared<std::promise<void>>();
  std::thread([destroyed, doomed = timer.release()] { delete doomed, destroyed->set_value(); }).detach();
  return destroyed->get_future().wait_for(seconds(5)) == std::future_status::ready;
}

TEST(RepeatingTimer, FiresRepeatedlyAndStopsAtOnceWhenDestroyed) {
  auto thirdRun = std::make_shared<std::promise<void>>();
  auto timer = std::make_unique<RepeatingTimer>(milliseconds(1), [thirdRun, runs = 0]() mutable {
    if (++runs == 3)
      thirdRun->set_value();
  });
  EXPECT_EQ(thirdRun->get_future().wait_for(seconds(30)), std::future_status::ready);
  EXPECT_TRUE(destroyedAtOnce(std::move(timer)));
  // Also a timer an hour from firing: its destruction does not wait for the hour.
  EXPECT_TRUE(destroyedAtOnce(std::make_unique<RepeatingTimer>(hours(1), [] {})));
}

} // namespace
} // namespace tavix::test
