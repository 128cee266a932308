// Runtime instances are the processes queued on the session bus for the runtime's
// well-known name; a runtime is launched as a detached program in a session of its own.

#include "platform/RuntimeApplications.h"
#include "platform/linux/ProcExecutable.h"
#include "platform/linux/SessionBusConnection.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace tavix {
namespace {

// The environment of the launched program, built before forking: after a fork in a
// threaded process only async-signal-safe calls are allowed.
std::vector<std::string> childEnvironment(const LaunchEnvironment &overrides) {
  std::vector<std::string> entries;
  for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    std::string_view text(*entry);
    bool replaced = false;
    for (const auto &pair : overrides)
      replaced = replaced || (text.starts_with(pair.first) && text.size() > pair.first.size() &&
                              text[pair.first.size()] == '=');
    if (!replaced)
      entries.emplace_back(text);
  }
  for (const auto &pair : overrides)
    entries.push_back(pair.first + "=" + pair.second);
  return entries;
}

// In the grandchild: a session of its own, default signal handling with nothing blocked
// (the bridge ignores SIGTERM and SIGINT and SIGPIPE, which a child would inherit), and
// standard input and output away from the bridge's protocol stream. Standard error stays:
// it is the bridge's log file.
[[noreturn]] void execRuntime(const char *path, char *const argv[], char *const envp[], int reportFd) {
  ::setsid();
  for (int signal : {SIGTERM, SIGINT, SIGPIPE, SIGHUP})
    ::signal(signal, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  int devNull = ::open("/dev/null", O_RDWR);
  if (devNull >= 0) {
    ::dup2(devNull, STDIN_FILENO);
    ::dup2(devNull, STDOUT_FILENO);
  }
  ::execve(path, argv, envp);
  int error = errno;
  (void)!::write(reportFd, &error, sizeof error);
  ::_exit(127);
}

// Starts `path` detached (a double fork, so no zombie is left behind) and reports the
// exec's failure through a close-on-exec pipe: end of file means the program runs.
std::optional<std::string> spawnDetached(const std::string &path, const LaunchEnvironment &overrides) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0)
    return path + ": " + std::strerror(errno);
  if (!S_ISREG(status.st_mode))
    return path + ": not an executable file";
  std::vector<std::string> environment = childEnvironment(overrides);
  std::vector<char *> envp;
  for (auto &entry : environment)
    envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string program = path;
  char *argv[] = {program.data(), nullptr};
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0)
    return std::string("cannot create a pipe: ") + std::strerror(errno);
  pid_t middle = ::fork();
  if (middle < 0) {
    ::close(report[0]);
    ::close(report[1]);
    return std::string("cannot fork: ") + std::strerror(errno);
  }
  if (middle == 0) {
    ::close(report[0]);
    if (::fork() == 0)
      execRuntime(program.c_str(), argv, envp.data(), report[1]);
    ::_exit(0);
  }
  ::close(report[1]);
  int ignored = 0;
  while (::waitpid(middle, &ignored, 0) < 0 && errno == EINTR) {
  }
  int execError = 0;
  ssize_t got;
  while ((got = ::read(report[0], &execError, sizeof execError)) < 0 && errno == EINTR) {
  }
  ::close(report[0]);
  if (got == static_cast<ssize_t>(sizeof execError))
    return path + ": " + std::strerror(execError);
  return std::nullopt;
}

class DBusRuntimeApplications final : public RuntimeApplications {
public:
  std::vector<RunningRuntimeInstance> runningInstances(const std::string &bundleIdentifier) override {
    std::vector<RunningRuntimeInstance> instances;
    std::vector<std::string> owners;
    SessionBusConnection *connection = nullptr;
    // A connection the bus dropped since its last use is reopened once.
    for (int attempt = 0; attempt < 2; ++attempt) {
      int error = 0;
      connection = SessionBusConnection::forThisThread(error);
      if (connection == nullptr)
        return instances;
      error = connection->queuedOwners(bundleIdentifier, owners);
      if (error >= 0)
        break;
      if (!SessionBusConnection::isConnectionLost(error) || attempt == 1)
        return instances;
      connection->invalidate();
    }
    for (const auto &owner : owners) {
      int32_t pid = 0;
      if (connection->processOf(owner, pid) >= 0 && pid > 0)
        instances.push_back({pid, procExecutablePath(pid)});
    }
    return instances;
  }

  bool isRunning(int32_t pid, const std::string &bundleIdentifier) override {
    for (const auto &instance : runningInstances(bundleIdentifier))
      if (instance.processIdentifier == pid)
        return true;
    return false;
  }

  void launch(const std::string &path, const LaunchEnvironment &environment, LaunchCompletion completion) override {
    completion(spawnDetached(path, environment));
  }
};

} // namespace

std::unique_ptr<RuntimeApplications> makeSystemRuntimeApplications() {
  return std::make_unique<DBusRuntimeApplications>();
}

} // namespace tavix
