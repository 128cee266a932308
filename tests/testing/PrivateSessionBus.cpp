#include "testing/PrivateSessionBus.h"

#include "testing/ChildProcess.h"

#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>

namespace tavix::test {
namespace {

// ChildProcess runs a path, not a name: dbus-daemon as PATH finds it.
std::string daemonPath() {
  const char *path = std::getenv("PATH");
  std::string directories = path != nullptr ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= directories.size()) {
    const size_t end = std::min(directories.find(':', start), directories.size());
    const std::string candidate = directories.substr(start, end - start) + "/dbus-daemon";
    if (::access(candidate.c_str(), X_OK) == 0)
      return candidate;
    start = end + 1;
  }
  throw std::runtime_error("dbus-daemon is not on PATH");
}

} // namespace

PrivateSessionBus::PrivateSessionBus() {
  // The daemon forks into the background; the process started here prints the address
  // and the daemon's pid, one a line, and exits.
  ChildProcess launcher({daemonPath(), "--session", "--fork", "--nopidfile", "--nosyslog", "--print-address=1", "--print-pid=1"});
  const auto address = launcher.readLine(std::chrono::seconds(20));
  const auto pid = launcher.readLine(std::chrono::seconds(20));
  const auto status = launcher.wait(std::chrono::seconds(20));
  if (!address || !pid || address->empty() || status != 0)
    throw std::runtime_error("dbus-daemon did not start: " + launcher.errorOutput());
  address_ = *address;
  pid_ = static_cast<pid_t>(std::stol(*pid));
  // A descriptor that becomes readable when the daemon, not a child of ours, exits.
  pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidfd_ < 0) {
    ::kill(pid_, SIGTERM);
    throw std::runtime_error("pidfd_open failed for the bus daemon");
  }
}

PrivateSessionBus::~PrivateSessionBus() {
  ::kill(pid_, SIGTERM);
  pollfd exited{pidfd_, POLLIN, 0};
  if (::poll(&exited, 1, 10000) <= 0) {
    ::kill(pid_, SIGKILL);
    ::poll(&exited, 1, 10000);
  }
  ::close(pidfd_);
}

} // namespace tavix::test
