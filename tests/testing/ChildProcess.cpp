#include "testing/ChildProcess.h"

#include "testing/Pipe.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char **environ;

namespace tavix::test {
namespace {

int remainingMs(ChildProcess::Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - ChildProcess::Clock::now());
  return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

// Reads what `fd` has within `timeoutMs` onto `buffer`; false at its end or after the time-out.
bool readInto(int fd, std::string &buffer, int timeoutMs) {
  pollfd ready{fd, POLLIN, 0};
  if (fd < 0 || ::poll(&ready, 1, timeoutMs) <= 0)
    return false;
  char chunk[65536];
  const ssize_t n = ::read(fd, chunk, sizeof chunk);
  if (n > 0)
    buffer.append(chunk, static_cast<size_t>(n));
  return n > 0;
}

} // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments, std::map<std::string, std::string> environment,
                           std::vector<std::string> unset) {
  std::vector<std::string> variables;
  for (char **entry = environ; *entry != nullptr; ++entry) {
    const std::string name(*entry, std::strcspn(*entry, "="));
    if (!environment.contains(name) && std::find(unset.begin(), unset.end(), name) == unset.end())
      variables.emplace_back(*entry);
  }
  for (const auto &[name, value] : environment)
    variables.push_back(name + "=" + value);
  std::vector<char *> argv, envp;
  for (auto &argument : arguments)
    argv.push_back(argument.data());
  for (auto &variable : variables)
    envp.push_back(variable.data());
  argv.push_back(nullptr);
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
  for (int unused : {in[0], out[1], err[1]})
    ::close(unused);
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

bool ChildProcess::fillOutput(Clock::time_point deadline) { return readInto(output_, outputBuffer_, remainingMs(deadline)); }

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  size_t end;
  while ((end = outputBuffer_.find('\n')) == std::string::npos)
    if (!fillOutput(deadline))
      return std::nullopt;
  std::string line = outputBuffer_.substr(0, end);
  outputBuffer_.erase(0, end + 1);
  return line;
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

// Takes what standard error has; closes it at its end.
void ChildProcess::drainError(int pollTimeoutMs) {
  pollfd ready{error_, POLLIN, 0};
  while (error_ >= 0 && ::poll(&ready, 1, pollTimeoutMs) > 0) {
    if (!readInto(error_, errorBuffer_, 0))
      ::close(std::exchange(error_, -1));
    pollTimeoutMs = 0;
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!status_) {
    int raw = 0;
    if (waitpid(pid_, &raw, WNOHANG) == pid_)
      status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
    else if (Clock::now() >= deadline)
      return std::nullopt;
    else
      drainError(5); // keeps a chatty child from blocking on a full pipe
  }
  return status_;
}

std::string ChildProcess::errorOutput(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  drainError(0);
  while (status_ && error_ >= 0 && Clock::now() < deadline) // complete once the child is gone
    drainError(remainingMs(deadline));
  return errorBuffer_;
}

bool ChildProcess::waitForError(std::string_view text, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (errorBuffer_.find(text) == std::string::npos) {
    if (error_ < 0 || Clock::now() >= deadline)
      return false;
    drainError(std::clamp(remainingMs(deadline), 1, 50));
  }
  return true;
}

std::vector<std::string> logLinesWithEvent(const std::string &log, std::string_view event) {
  std::vector<std::string> lines;
  const std::string needle = " event=" + std::string(event);
  for (size_t start = 0, end; start < log.size(); start = end + 1) {
    end = std::min(log.find('\n', start), log.size());
    const std::string line = log.substr(start, end - start);
    if (line.find(needle + " ") != std::string::npos || line.ends_with(needle))
      lines.push_back(line);
  }
  return lines;
}

} // namespace tavix::test
