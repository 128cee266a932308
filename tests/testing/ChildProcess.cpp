#include "testing/ChildProcess.h"

#include "testing/Pipe.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

extern char **environ;

namespace tavix::test {
namespace {

int remainingMs(ChildProcess::Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - ChildProcess::Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

} // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments,
                           std::map<std::string, std::string> environment,
                           std::vector<std::string> unset) {
  std::vector<std::string> envStrings;
  for (char **entry = environ; *entry != nullptr; ++entry) {
    std::string item(*entry);
    const std::string name = item.substr(0, item.find('='));
    if (environment.contains(name) ||
        std::find(unset.begin(), unset.end(), name) != unset.end())
      continue;
    envStrings.push_back(std::move(item));
  }
  for (const auto &[name, value] : environment)
    envStrings.push_back(name + "=" + value);
  std::vector<char *> argv, envp;
  for (auto &a : arguments)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  for (auto &e : envStrings)
    envp.push_back(e.data());
  envp.push_back(nullptr);

  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
    throw std::runtime_error("pipe failed");
  pid_ = fork();
  if (pid_ == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  input_ = in[1];
  output_ = out[0];
  error_ = err[0];
}

ChildProcess::~ChildProcess() {
  if (!status_ && pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (int fd : {input_, output_, error_})
    if (fd >= 0)
      ::close(fd);
}

void ChildProcess::write(std::string_view bytes) { writeAll(input_, bytes); }

void ChildProcess::closeInput() {
  if (input_ >= 0)
    ::close(std::exchange(input_, -1));
}

void ChildProcess::closeOutput() {
  if (output_ >= 0)
    ::close(std::exchange(output_, -1));
}

void ChildProcess::signal(int number) { ::kill(pid_, number); }

void ChildProcess::setOutputPipeSize(int bytes) { fcntl(output_, F_SETPIPE_SZ, bytes); }

bool ChildProcess::fillOutput(Clock::time_point deadline) {
  pollfd fd{output_, POLLIN, 0};
  if (output_ < 0 || ::poll(&fd, 1, remainingMs(deadline)) <= 0)
    return false;
  char chunk[65536];
  const ssize_t n = ::read(output_, chunk, sizeof chunk);
  if (n <= 0)
    return false;
  outputBuffer_.append(chunk, static_cast<size_t>(n));
  return true;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (const size_t end = outputBuffer_.find('\n'); end != std::string::npos) {
      std::string line = outputBuffer_.substr(0, end);
      outputBuffer_.erase(0, end + 1);
      return line;
    }
    if (!fillOutput(deadline))
      return std::nullopt;
  }
}

std::optional<std::string> ChildProcess::readBytes(size_t count, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (outputBuffer_.size() < count)
    if (!fillOutput(deadline))
      return std::nullopt;
  std::string bytes = outputBuffer_.substr(0, count);
  outputBuffer_.erase(0, count);
  return bytes;
}

std::string ChildProcess::readRemainingOutput(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (fillOutput(deadline)) {
  }
  return std::exchange(outputBuffer_, {});
}

void ChildProcess::drainError(int pollTimeoutMs) {
  pollfd fd{error_, POLLIN, 0};
  while (error_ >= 0 && ::poll(&fd, 1, pollTimeoutMs) > 0) {
    char chunk[65536];
    const ssize_t n = ::read(error_, chunk, sizeof chunk);
    if (n <= 0) {
      ::close(std::exchange(error_, -1));
      return;
    }
    errorBuffer_.append(chunk, static_cast<size_t>(n));
    pollTimeoutMs = 0;
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!status_) {
    int raw = 0;
    const pid_t done = waitpid(pid_, &raw, WNOHANG);
    if (done == pid_) {
      status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
      break;
    }
    if (Clock::now() >= deadline)
      return std::nullopt;
    drainError(5); // keeps a chatty child from blocking on a full pipe
  }
  return status_;
}

std::string ChildProcess::errorOutput(std::chrono::milliseconds timeout) {
  if (status_) {
    const auto deadline = Clock::now() + timeout;
    while (error_ >= 0 && Clock::now() < deadline)
      drainError(remainingMs(deadline));
  } else {
    drainError(0);
  }
  return errorBuffer_;
}

bool ChildProcess::waitForError(std::string_view text, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (errorBuffer_.find(text) == std::string::npos) {
    if (error_ < 0 || Clock::now() >= deadline)
      return false;
    drainError(std::max(1, std::min(50, remainingMs(deadline))));
  }
  return true;
}

std::vector<std::string> logLinesWithEvent(const std::string &log, std::string_view event) {
  std::vector<std::string> lines;
  const std::string needle = " event=" + std::string(event) + " ";
  const std::string needleAtEnd = " event=" + std::string(event);
  size_t start = 0;
  while (start < log.size()) {
    size_t end = log.find('\n', start);
    if (end == std::string::npos)
      end = log.size();
    const std::string line = log.substr(start, end - start);
    if (line.find(needle) != std::string::npos || line.ends_with(needleAtEnd))
      lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

} // namespace tavix::test
