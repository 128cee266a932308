#include "platform/linux/SessionBusConnection.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace tavix {
namespace {

constexpr const char *busService = "org.freedesktop.DBus";
constexpr const char *busPath = "/org/freedesktop/DBus";
constexpr const char *busInterface = "org.freedesktop.DBus";
constexpr uint64_t busQueryTimeoutMicroseconds = 5'000'000;

} // namespace

std::string sessionBusAddress() {
  if (const char *address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address != nullptr && *address != '\0')
    return address;
  if (const char *runtimeDirectory = std::getenv("XDG_RUNTIME_DIR");
      runtimeDirectory != nullptr && *runtimeDirectory != '\0')
    return std::string("unix:path=") + runtimeDirectory + "/bus";
  return "unix:path=/run/user/" + std::to_string(::getuid()) + "/bus";
}

SessionBusConnection *SessionBusConnection::forThisThread(int &error) {
  thread_local std::unique_ptr<SessionBusConnection> connection(new SessionBusConnection());
  error = 0;
  const bool forked = connection->openedInProcess_ != ::getpid();
  if (connection->bus_ != nullptr &&
      (forked || sd_bus_is_open(connection->bus_) <= 0 || connection->address_ != sessionBusAddress()))
    connection->invalidate();
  if (connection->bus_ == nullptr && (error = connection->open()) < 0)
    return nullptr;
  return connection.get();
}

SessionBusConnection::~SessionBusConnection() { invalidate(); }

void SessionBusConnection::invalidate() {
  if (bus_ != nullptr) {
    // After a fork the connection's socket belongs to the parent: close without flushing.
    if (openedInProcess_ == ::getpid())
      sd_bus_flush_close_unref(bus_);
    else
      sd_bus_close_unref(bus_);
  }
  bus_ = nullptr;
  uniqueNames.clear();
}

int SessionBusConnection::open() {
  sd_bus *bus = nullptr;
  int result = sd_bus_new(&bus);
  if (result < 0)
    return result;
  const std::string address = sessionBusAddress();
  if ((result = sd_bus_set_address(bus, address.c_str())) < 0 || (result = sd_bus_set_bus_client(bus, 1)) < 0 ||
      (result = sd_bus_negotiate_fds(bus, 1)) < 0 || (result = sd_bus_start(bus)) < 0) {
    sd_bus_unref(bus);
    return result;
  }
  bus_ = bus;
  openedInProcess_ = ::getpid();
  address_ = address;
  return 0;
}

bool SessionBusConnection::isConnectionLost(int error) {
  return error == -ECONNRESET || error == -ENOTCONN || error == -EPIPE || error == -ESHUTDOWN;
}

int SessionBusConnection::queuedOwners(const std::string &name, std::vector<std::string> &owners) {
  owners.clear();
  sd_bus_error error{}; // SD_BUS_ERROR_NULL without its C compound literal
  sd_bus_message *call = nullptr, *reply = nullptr;
  int result = sd_bus_message_new_method_call(bus_, &call, busService, busPath, busInterface, "ListQueuedOwners");
  if (result >= 0)
    result = sd_bus_message_append(call, "s", name.c_str());
  if (result >= 0)
    result = sd_bus_call(bus_, call, busQueryTimeoutMicroseconds, &error, &reply);
  if (result < 0 && sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
    result = 0; // nobody owns it: no instances
  else if (result >= 0 && (result = sd_bus_message_enter_container(reply, 'a', "s")) >= 0) {
    const char *owner = nullptr;
    while ((result = sd_bus_message_read_basic(reply, 's', &owner)) > 0)
      owners.emplace_back(owner);
  }
  sd_bus_error_free(&error);
  sd_bus_message_unref(call);
  sd_bus_message_unref(reply);
  return result;
}

int SessionBusConnection::processOf(const std::string &uniqueName, int32_t &pid) {
  sd_bus_error error{}; // SD_BUS_ERROR_NULL without its C compound literal
  sd_bus_message *reply = nullptr;
  uint32_t value = 0;
  int result = sd_bus_call_method(bus_, busService, busPath, busInterface, "GetConnectionUnixProcessID", &error,
                                  &reply, "s", uniqueName.c_str());
  if (result >= 0)
    result = sd_bus_message_read(reply, "u", &value);
  pid = static_cast<int32_t>(value);
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  return result;
}

} // namespace tavix
