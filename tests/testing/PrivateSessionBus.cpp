#include "testing/PrivateSessionBus.h"

#include "testing/ChildProcess.h"

#include <csignal>
#include <poll.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>

namespace tavix::test {

PrivateSessionBus::PrivateSessionBus() {
  // The daemon (found on PATH) forks into the background; the process started here prints
  // the address and the daemon's pid, one a line, and exits.
  ChildProcess launcher({"/usr/bin/env", "dbus-daemon", "--session", "--fork", "--nopidfile", "--nosyslog",
                         "--print-address=1", "--print-pid=1"});
  const auto address = launcher.readLine(std::chrono::seconds(20));
  const auto pid = launcher.readLine(std::chrono::seconds(20));
  if (!address || !pid || address->empty() || launcher.wait(std::chrono::seconds(20)) != 0)
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
