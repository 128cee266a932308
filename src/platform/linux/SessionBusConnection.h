#pragma once
// The calling thread's own connection to the user's session bus. sd-bus connections are
// not thread-safe, so each thread that talks to the runtime keeps one; it is reopened
// when the bus dropped it, the process forked since it was made, or the bus's address
// changed.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct sd_bus;

namespace tavix {

// The session bus's address: DBUS_SESSION_BUS_ADDRESS, else the socket in
// XDG_RUNTIME_DIR, else the one in /run/user/<uid>; hosts often start the bridge with a
// stripped environment.
std::string sessionBusAddress();

class SessionBusConnection {
public:
  // This thread's connection, opened if need be; nullptr when the bus cannot be reached
  // (with `error` set to the negative errno).
  static SessionBusConnection *forThisThread(int &error);
  ~SessionBusConnection();
  SessionBusConnection(const SessionBusConnection &) = delete;
  SessionBusConnection &operator=(const SessionBusConnection &) = delete;

  sd_bus *bus() const { return bus_; }
  // Drops the connection, so that the next use reopens it.
  void invalidate();
  // Whether a failed call's errno means the connection itself is gone.
  static bool isConnectionLost(int error);

  // The unique names queued for `name`, the owner first; empty when nobody owns it.
  // Negative errno on a bus failure.
  int queuedOwners(const std::string &name, std::vector<std::string> &owners);
  int processOf(const std::string &uniqueName, int32_t &pid);

  // Unique names found for runtime processes; a unique name is never reused on a bus, so
  // an entry stays right until the process leaves.
  std::map<int32_t, std::string> uniqueNames;

private:
  SessionBusConnection() = default;
  int open();

  sd_bus *bus_ = nullptr;
  int64_t openedInProcess_ = 0;
  std::string address_;
};

} // namespace tavix
