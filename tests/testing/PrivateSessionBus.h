#pragma once
// A D-Bus session bus of a test's own: a real dbus-daemon, started for the test and
// stopped with it, so that tests never touch the user's bus and can run side by side.

#include <string>
#include <sys/types.h>

namespace tavix::test {

class PrivateSessionBus {
public:
  // Starts the daemon and waits for its address; throws when it cannot.
  PrivateSessionBus();
  // Stops the daemon and waits until it is gone.
  ~PrivateSessionBus();
  PrivateSessionBus(const PrivateSessionBus &) = delete;
  PrivateSessionBus &operator=(const PrivateSessionBus &) = delete;

  // The address to connect to, as DBUS_SESSION_BUS_ADDRESS takes it.
  const std::string &address() const { return address_; }
  pid_t pid() const { return pid_; }

private:
  std::string address_;
  pid_t pid_ = -1;
  int pidfd_ = -1; // becomes readable when the daemon exits
};

} // namespace tavix::test
