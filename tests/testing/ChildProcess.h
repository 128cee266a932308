#pragma once
// Starts a program with its three standard streams on pipes, for tests that drive the
// real executable the way a host does.

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tavix::test {

class ChildProcess {
public:
  using Clock = std::chrono::steady_clock;

  // The child gets a copy of this process's environment with `environment` set and the
  // `unset` names removed.
  ChildProcess(std::vector<std::string> arguments,
               std::map<std::string, std::string> environment = {},
               std::vector<std::string> unset = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  pid_t pid() const { return pid_; }
  void write(std::string_view bytes);
  void closeInput();
  void closeOutput(); // the read end of the child's standard output
  // Shrinks the pipe of the child's standard output, so that it fills after a few bytes.
  void setOutputPipeSize(int bytes);
  void signal(int number);

  // Reads standard output until `count` bytes, or a line, have arrived; empty optional
  // on end of output or after `timeout`.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::optional<std::string> readBytes(size_t count,
                                       std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Everything left on standard output until the child closes it.
  std::string readRemainingOutput(std::chrono::milliseconds timeout = std::chrono::seconds(10));

  // The exit status, or -signal when a signal ended it; nothing after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Standard error so far (complete once the child has exited and closed it).
  std::string errorOutput(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Waits until standard error shows `text`.
  bool waitForError(std::string_view text, std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
  bool fillOutput(Clock::time_point deadline);
  void drainError(int pollTimeoutMs);

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  std::string outputBuffer_;
  std::string errorBuffer_;
  std::optional<int> status_;
};

// The lines of a log text whose event is `event`.
std::vector<std::string> logLinesWithEvent(const std::string &log, std::string_view event);

} // namespace tavix::test
