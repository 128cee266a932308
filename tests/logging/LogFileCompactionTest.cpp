// Compaction of a log file: what is kept, the closing notice, and several processes
// writing and compacting one file at once.

#include "logging/LogFileCompaction.h"
#include "TestPaths.h"

#include "fakes/CapturedLog.h"
#include "testing/ChildProcess.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

namespace tavix::test {
namespace {

using ::testing::HasSubstr;
namespace fs = std::filesystem;

constexpr int64_t MiB = 1024 * 1024;

std::vector<std::string> splitLines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

// Numbered lines of 100 bytes each, newline included, up to `bytes` in all.
std::string numberedLines(int64_t bytes) {
  std::string text;
  text.reserve(static_cast<size_t>(bytes));
  for (int i = 0; static_cast<int64_t>(text.size()) + 100 <= bytes; ++i) {
    std::string number = std::to_string(i);
    text += "line " + std::string(10 - number.size(), '0') + number + " " + std::string(83, '.') + "\n";
  }
  return text;
}

TEST(LogFileCompaction, ASixMiBFileKeepsItsLastFourMiBFromALineStartThenTheNotice) {
  TemporaryDirectory directory;
  const std::string path = directory / "computer-use-runtime.log";
  const std::string original = numberedLines(6 * MiB);
  writeFile(path, original);
  const CapturedLog log; // the notice is written to the file, never through the logger

  EXPECT_TRUE(compactLogFileIfNeeded(path));
  const std::string compacted = readFile(path);
  auto lines = splitLines(compacted);
  ASSERT_GE(lines.size(), 2u);
  const std::string notice = lines.back();
  lines.pop_back();
  EXPECT_THAT(notice, HasSubstr(" level=warning "));
  EXPECT_THAT(notice, HasSubstr(" category=logging event=log_compacted previousBytes=" +
                                std::to_string(original.size()) + " reason=size_limit"));
  EXPECT_TRUE(compacted.ends_with(notice + "\n"));

  const std::string kept = compacted.substr(0, compacted.size() - notice.size() - 1);
  EXPECT_LE(static_cast<int64_t>(kept.size()), 4 * MiB);
  EXPECT_GT(static_cast<int64_t>(kept.size()), 4 * MiB - 100);
  EXPECT_TRUE(original.ends_with(kept)); // the end of the file, unchanged
  EXPECT_TRUE(kept.starts_with("line ")) << kept.substr(0, 40);
  EXPECT_TRUE(log.lines().empty());

  // Below the limit now: a second run leaves the file alone.
  EXPECT_FALSE(compactLogFileIfNeeded(path));
  EXPECT_EQ(readFile(path), compacted);
}

TEST(LogFileCompaction, FilesBelowTheLimitOrMissingAreLeftAlone) {
  TemporaryDirectory directory;
  const std::string path = directory / "small.log";
  std::string justBelow = numberedLines(5 * MiB - 100);
  justBelow += std::string(static_cast<size_t>(5 * MiB - 1) - justBelow.size(), 'x');
  ASSERT_EQ(static_cast<int64_t>(justBelow.size()), 5 * MiB - 1);
  writeFile(path, justBelow);
  EXPECT_FALSE(compactLogFileIfNeeded(path));
  EXPECT_EQ(readFile(path), justBelow);
  EXPECT_FALSE(compactLogFileIfNeeded(directory / "missing.log"));
  EXPECT_FALSE(fs::exists(directory / "missing.log"));
}

TEST(LogFileCompaction, ATailWithoutALineBreakIsKeptWhole) {
  TemporaryDirectory directory;
  const std::string path = directory / "one-line.log";
  writeFile(path, std::string(5000, 'x'));
  EXPECT_TRUE(compactLogFileIfNeeded(path, {4096, 1000}));
  const std::string compacted = readFile(path);
  EXPECT_TRUE(compacted.starts_with(std::string(1000, 'x') + "2")) << compacted.substr(0, 1010);
  EXPECT_THAT(compacted, HasSubstr("previousBytes=5000 reason=size_limit\n"));
}

// Each writer's lines in the file, by sequence number, after checking that every line is
// whole: a writer's line, a compaction notice or a writer's first line.
std::map<std::string, std::vector<long>> sequencesByWriter(const std::string &text,
                                                           int &notices) {
  static const std::regex writerLine(
      R"(^\S+ level=info process=\S+ pid=\d+ category=logging event=test_line padding=-{120} sequence=(\d+) writer=(\w+)$)");
  static const std::regex noticeLine(
      R"(^\S+ level=warning process=\S+ pid=\d+ category=logging event=log_compacted previousBytes=\d+ reason=size_limit$)");
  static const std::regex attachedLine(
      R"(^\S+ level=info process=\S+ pid=\d+ category=logging event=stderr_sink_attached logPath=\S+$)");
  std::map<std::string, std::vector<long>> sequences;
  notices = 0;
  for (const auto &line : splitLines(text)) {
    std::smatch match;
    if (std::regex_match(line, match, writerLine))
      sequences[match[2]].push_back(std::stol(match[1]));
    else if (std::regex_match(line, noticeLine))
      ++notices;
    else if (!std::regex_match(line, attachedLine))
      ADD_FAILURE() << "a broken or interleaved line: " << line;
  }
  return sequences;
}

TEST(LogFileCompaction, ConcurrentWritersAndCompactorsLoseNoLaterLineAndNeverInterleave) {
  TemporaryDirectory directory;
  constexpr long lines = 2000;
  // Each compaction drops only the oldest 64 KiB, so that the final file still spans
  // many compactions and a line lost in any of them shows as a gap.
  constexpr LogFileLimits limits{1024 * 1024, 960 * 1024};
  // Three processes of two threads each, every thread also compacting.
  const std::vector<std::string> writers = {"alpha", "beta", "gamma"};
  std::vector<std::unique_ptr<ChildProcess>> processes;
  for (const auto &name : writers)
    processes.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{
        TAVIX_LOG_WRITER_EXECUTABLE, directory.path(), name, std::to_string(lines), "20",
        std::to_string(limits.maxLogFileBytes), std::to_string(limits.retainedLogTailBytes)}));
  for (auto &process : processes)
    ASSERT_EQ(process->wait(std::chrono::seconds(120)), 0);

  int notices = 0;
  const auto sequences =
      sequencesByWriter(readFile(directory / "computer-use-runtime.log"), notices);
  EXPECT_GE(notices, 1);
  ASSERT_FALSE(sequences.empty());
  // Compaction only ever drops the start of the file, so what is left of each writer is
  // an unbroken run that ends with its last line.
  for (const auto &[writer, numbers] : sequences) {
    SCOPED_TRACE(writer);
    EXPECT_EQ(numbers.back(), lines - 1);
    for (size_t i = 1; i < numbers.size(); ++i)
      ASSERT_EQ(numbers[i], numbers[i - 1] + 1) << "a line is missing after " << numbers[i - 1];
  }
}

} // namespace
} // namespace tavix::test
