// Redirection of a descriptor that stands for standard error into the log file, in
// temporary home directories: placement, following the host to a newer session,
// failures, and the refresh timer.

#include "logging/TavixComputerUseLogFile.h"

#include "fakes/CapturedLog.h"
#include "fakes/FakeUnifiedLog.h"
#include "logging/RepeatingTimer.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix::test {
namespace {

using namespace std::chrono;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

// Counts the runs of a timer's job, so that a test can wait for some.
class RunCounter {
public:
  void record() {
    std::lock_guard guard(mutex_);
    ++runs_;
    ran_.notify_all();
  }
  int count() {
    std::lock_guard guard(mutex_);
    return runs_;
  }
  bool waitFor(int runs) {
    std::unique_lock lock(mutex_);
    return ran_.wait_for(lock, seconds(30), [&] { return runs_ >= runs; });
  }

private:
  std::mutex mutex_;
  std::condition_variable ran_;
  int runs_ = 0;
};

class StderrRedirectionTest : public ::testing::Test {
protected:
  void TearDown() override { ::close(target_); }

  StderrRedirection makeRedirection(LogFileLimits limits = {}) {
    return StderrRedirection({.environment = [this](const char *name) -> std::optional<std::string> {
                                std::lock_guard guard(environmentLock_);
                                const auto found = environment_.find(name);
                                if (found == environment_.end())
                                  return std::nullopt;
                                return found->second;
                              },
                              .now = [] { return sys_days{2026y / March / 4} + 15h + 7min + 9s; },
                              .homeDirectory = [this] { return home_.path(); },
                              .targetDescriptor = target_,
                              .limits = limits});
  }
  void setVariable(const std::string &name, const std::string &value) {
    std::lock_guard guard(environmentLock_);
    environment_[name] = value;
  }
  // The file the descriptor points at now.
  std::string targetPath() const {
    std::array<char, 4096> buffer{};
    const std::string link = "/proc/self/fd/" + std::to_string(target_);
    const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size() - 1);
    return length > 0 ? std::string(buffer.data(), static_cast<size_t>(length)) : "";
  }
  void writeToTarget(std::string_view text) const {
    ASSERT_EQ(::write(target_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string sessionLog(std::string_view session) const {
    return home_ / (".config/Tavix/logs/" + std::string(session) + "/computer-use-runtime.log");
  }

  TemporaryDirectory home_;
  int target_ = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  std::mutex environmentLock_;
  std::map<std::string, std::string, std::less<>> environment_;
};

TEST_F(StderrRedirectionTest, TheDescriptorAppendsToTheExplicitLogFile) {
  const std::string path = home_ / "logs/computer-use-runtime.log";
  writeFile(path, "earlier\n");
  setVariable("TAVIX_CU_LOG_DIR", home_ / "logs");
  const CapturedLog log;
  auto redirection = makeRedirection();
  redirection.redirectIfNeeded();
  EXPECT_EQ(targetPath(), path);
  EXPECT_EQ(redirection.currentLogPath(), path);
  writeToTarget("later\n");
  EXPECT_EQ(readFile(path), "earlier\nlater\n");

  // The same file on the next run: nothing moves and nothing more is logged.
  redirection.redirectIfNeeded();
  const auto attached = log.withEvent("stderr_sink_attached");
  ASSERT_EQ(attached.size(), 1u);
  EXPECT_THAT(attached[0], HasSubstr(" level=info "));
  EXPECT_THAT(attached[0], HasSubstr(" category=logging event=stderr_sink_attached logPath="));
  EXPECT_TRUE(attached[0].ends_with("/logs/computer-use-runtime.log\n"));
}

TEST_F(StderrRedirectionTest, AClosedTargetIsReplacedByTheFileUnderItsNumber) {
  setVariable("TAVIX_CU_LOG_DIR", home_ / "logs");
  // Nothing else opens files meanwhile, so the log file gets the lowest free number:
  // the target's.
  ::close(target_);
  const CapturedLog log;
  makeRedirection().redirectIfNeeded();
  EXPECT_EQ(targetPath(), home_ / "logs/computer-use-runtime.log");
  EXPECT_EQ(::fcntl(target_, F_GETFD) & FD_CLOEXEC, 0);
  // Still open for what comes next.
  const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_NE(other, target_);
  ::close(other);
  writeToTarget("kept\n");
  EXPECT_EQ(readFile(home_ / "logs/computer-use-runtime.log"), "kept\n");
}

TEST_F(StderrRedirectionTest, ANewFileIsReadableByAllAndWritableByItsOwner) {
  setVariable("TAVIX_CU_LOG_DIR", home_ / "logs");
  const mode_t previous = ::umask(0);
  makeRedirection().redirectIfNeeded();
  ::umask(previous);
  struct stat status {};
  ASSERT_EQ(::stat((home_ / "logs/computer-use-runtime.log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
  EXPECT_EQ(::fcntl(target_, F_GETFL) & O_APPEND, O_APPEND);
}

TEST_F(StderrRedirectionTest, EachRunFollowsTheHostToItsNewestSession) {
  writeFile(home_ / ".config/Tavix/logs/20260101T000000/main.log", "");
  const CapturedLog log;
  auto redirection = makeRedirection();
  redirection.redirectIfNeeded();
  EXPECT_EQ(targetPath(), sessionLog("20260101T000000"));
  writeToTarget("first session\n");

  writeFile(home_ / ".config/Tavix/logs/20260102T000000/main.log", "");
  redirection.redirectIfNeeded();
  EXPECT_EQ(targetPath(), sessionLog("20260102T000000"));
  writeToTarget("second session\n");
  EXPECT_EQ(readFile(sessionLog("20260101T000000")), "first session\n");
  EXPECT_EQ(readFile(sessionLog("20260102T000000")), "second session\n");
  EXPECT_EQ(log.withEvent("stderr_sink_attached").size(), 2u);
}

TEST_F(StderrRedirectionTest, TheRefreshTimerMovesTheDescriptorWithoutBeingAsked) {
  writeFile(home_ / ".config/Tavix/logs/20260101T000000/main.log", "");
  const CapturedLog log;
  auto redirection = makeRedirection();
  redirection.redirectIfNeeded();
  ASSERT_EQ(targetPath(), sessionLog("20260101T000000"));

  RunCounter runs;
  RepeatingTimer timer(milliseconds(5), [&] {
    redirection.redirectIfNeeded();
    runs.record();
  });
  writeFile(home_ / ".config/Tavix/logs/20260102T000000/sharedprocess.log", "");
  // Two runs after the new session appeared: the later one certainly saw it.
  ASSERT_TRUE(runs.waitFor(runs.count() + 2));
  EXPECT_EQ(targetPath(), sessionLog("20260102T000000"));
}

TEST_F(StderrRedirectionTest, AFileThatCannotBeOpenedLeavesTheDescriptorAndTellsOnlyTheSystemLog) {
  fs::create_directories(home_ / "logs/computer-use-runtime.log"); // a directory in its place
  setVariable("TAVIX_CU_LOG_DIR", home_ / "logs");
  const auto unified = std::make_shared<FakeUnifiedLog>();
  const CapturedLog log(unified);
  auto redirection = makeRedirection();
  redirection.redirectIfNeeded();
  EXPECT_EQ(targetPath(), "/dev/null");
  EXPECT_EQ(redirection.currentLogPath(), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
  const auto entries = unified->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_THAT(entries[0].line, HasSubstr(" level=fault "));
  EXPECT_THAT(entries[0].line, HasSubstr(" event=log_file_open_failed errno=21 logPath="));

  // Once the obstacle is gone, the next run attaches.
  fs::remove(home_ / "logs/computer-use-runtime.log");
  redirection.redirectIfNeeded();
  EXPECT_EQ(targetPath(), home_ / "logs/computer-use-runtime.log");
}

TEST_F(StderrRedirectionTest, AnOversizedFileIsCompactedBeforeTheDescriptorMovesToIt) {
  const std::string path = home_ / "logs/computer-use-runtime.log";
  writeFile(path, std::string(3000, 'a') + "\n" + std::string(2000, 'b') + "\n");
  setVariable("TAVIX_CU_LOG_DIR", home_ / "logs");
  const CapturedLog log;
  makeRedirection({4096, 2500}).redirectIfNeeded();
  writeToTarget("after\n");
  const std::string text = readFile(path);
  EXPECT_TRUE(text.starts_with(std::string(2000, 'b') + "\n")) << text.substr(0, 10);
  EXPECT_THAT(text, HasSubstr("event=log_compacted previousBytes=5002 reason=size_limit\nafter\n"));
}

TEST(RepeatingTimer, FiresRepeatedlyAndStopsAtOnceWhenDestroyed) {
  RunCounter runs;
  {
    RepeatingTimer timer(milliseconds(1), [&] { runs.record(); });
    ASSERT_TRUE(runs.waitFor(3));
  }
  // A timer an hour from firing is destroyed without waiting for it (were it to wait,
  // the test would run into its time limit).
  { RepeatingTimer idle(hours(1), [&] { runs.record(); }); }
}

} // namespace
} // namespace tavix::test
