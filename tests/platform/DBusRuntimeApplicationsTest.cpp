// Launching a runtime on Linux: the program runs detached in a session of its own, with
// the launch environment, and without the signal handling of the bridge, which ignores
// SIGTERM and handles SIGINT on a thread of its own. A program that cannot run reports why.

#include "platform/RuntimeApplications.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix::test {
namespace {

// Everything written into the FIFO until its writer closes it, or nothing after `timeout`.
std::optional<std::string> readFifo(const std::string &path, int timeoutMs) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0)
    return std::nullopt;
  std::string text;
  bool writerSeen = false;
  while (true) {
    pollfd wait{fd, POLLIN, 0};
    if (::poll(&wait, 1, timeoutMs) <= 0)
      break;
    char buffer[4096];
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<size_t>(n));
      writerSeen = true;
    } else if (n == 0 && writerSeen) {
      ::close(fd);
      return text;
    }
  }
  ::close(fd);
  return std::nullopt;
}

uint64_t maskFrom(const std::string &report, const std::string &field) {
  const auto at = report.find(field);
  return at == std::string::npos ? ~0ull : std::stoull(report.substr(at + field.size()), nullptr, 16);
}

TEST(DBusRuntimeApplications, ALaunchedRuntimeHasItsOwnSessionTheEnvironmentAndDefaultSignals) {
  TemporaryDirectory directory;
  const std::string fifo = directory.path() + "/report";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string program = directory.path() + "/runtime";
  std::ofstream(program) << "#!/bin/sh\n"
                            "{ grep -E '^Sig(Blk|Ign)' /proc/self/status\n"
                            "  echo \"sid=$(cut -d' ' -f6 /proc/$$/stat) pid=$$\"\n"
                            "  echo \"log=$TAVIX_CU_LOG_DIR\"; } > '" + fifo + "'\n";
  ASSERT_EQ(::chmod(program.c_str(), 0700), 0);

  auto previousTerm = ::signal(SIGTERM, SIG_IGN);
  sigset_t interrupt, previousMask;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  ::pthread_sigmask(SIG_BLOCK, &interrupt, &previousMask);
  std::optional<std::optional<std::string>> completion;
  makeSystemRuntimeApplications()->launch(program, {{"TAVIX_CU_LOG_DIR", "/logs/here"}},
                                          [&](std::optional<std::string> error) { completion = error; });
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::signal(SIGTERM, previousTerm);

  ASSERT_TRUE(completion.has_value()) << "the launch reports before it returns";
  EXPECT_EQ(*completion, std::nullopt);
  const auto report = readFifo(fifo, 10000);
  ASSERT_TRUE(report.has_value());
  const uint64_t termAndInt = (1ull << (SIGTERM - 1)) | (1ull << (SIGINT - 1));
  EXPECT_EQ(maskFrom(*report, "SigBlk:") & termAndInt, 0u) << *report;
  EXPECT_EQ(maskFrom(*report, "SigIgn:") & termAndInt, 0u) << *report;
  const auto sid = report->find("sid="), pid = report->find(" pid=");
  ASSERT_NE(sid, std::string::npos);
  EXPECT_EQ(report->substr(sid + 4, pid - sid - 4), report->substr(pid + 5, report->find('\n', pid) - pid - 5))
      << "a session of its own";
  EXPECT_NE(report->find("log=/logs/here\n"), std::string::npos) << *report;
}

TEST(DBusRuntimeApplications, AProgramThatCannotRunReportsWhy) {
  TemporaryDirectory directory;
  const std::string notExecutable = directory.path() + "/plain";
  std::ofstream(notExecutable) << "data";
  const struct {
    std::string path;
    std::string error;
  } cases[] = {
      {directory.path() + "/missing", directory.path() + "/missing: No such file or directory"},
      {directory.path(), directory.path() + ": not an executable file"},
      {notExecutable, notExecutable + ": Permission denied"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    std::optional<std::optional<std::string>> completion;
    makeSystemRuntimeApplications()->launch(c.path, {}, [&](std::optional<std::string> error) { completion = error; });
    ASSERT_TRUE(completion.has_value());
    EXPECT_EQ(*completion, c.error);
  }
}

} // namespace
} // namespace tavix::test
