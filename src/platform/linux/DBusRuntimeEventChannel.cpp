// The event to the runtime app carried as one D-Bus method call on the session bus
// (docs/runtime-dbus-interface.md): the runtime instance is addressed by the unique name
// that its process holds in the queue of the runtime's well-known name.

#include "platform/RuntimeEventChannel.h"
#include "platform/linux/RuntimeBusNames.h"
#include "platform/linux/SealedMemfd.h"
#include "platform/linux/SessionBusConnection.h"

#include <cerrno>
#include <cmath>
#include <string_view>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace tavix {
namespace {

// A D-Bus error name and the status the transport logic knows it by.
struct ErrorStatus {
  const char *name;
  int32_t status;
};
constexpr ErrorStatus errorStatuses[] = {
    {SD_BUS_ERROR_TIMEOUT, eventTimedOutStatus},
    {SD_BUS_ERROR_NO_REPLY, eventTimedOutStatus},
    {SD_BUS_ERROR_ACCESS_DENIED, eventNotPermittedStatus},
    {SD_BUS_ERROR_SERVICE_UNKNOWN, processNotFoundStatus},
    {SD_BUS_ERROR_NAME_HAS_NO_OWNER, processNotFoundStatus},
    {SD_BUS_ERROR_DISCONNECTED, connectionInvalidStatus},
};

// The errors of a runtime that is up but has not installed its handler yet.
constexpr const char *handlerMissingErrors[] = {SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_OBJECT,
                                                SD_BUS_ERROR_UNKNOWN_INTERFACE};

// RAII for the sd-bus objects of one call.
struct CallObjects {
  sd_bus_message *call = nullptr;
  sd_bus_message *reply = nullptr;
  sd_bus_error error{}; // SD_BUS_ERROR_NULL without its C compound literal
  int fd = -1;
  ~CallObjects() {
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (fd >= 0)
      ::close(fd);
  }
};

RuntimeEventOutcome failed(int32_t status, std::string detail = {}) {
  RuntimeEventOutcome outcome;
  outcome.status = status;
  outcome.detail = std::move(detail);
  return outcome;
}

int appendString(sd_bus_message *m, const char *key, std::string_view value) {
  std::string text(value);
  return sd_bus_message_append(m, "{sv}", key, "s", text.c_str());
}

int appendParameters(sd_bus_message *m, const RuntimeEvent &event, int &payloadFd, bool canPassFds) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  if (r >= 0)
    r = appendString(m, runtimebus::requestTypeKey, event.requestType);
  if (r >= 0 && canPassFds && event.requestData.size() > runtimebus::inlinePayloadLimit) {
    payloadFd = makeSealedMemfd("tavix-request", event.requestData);
    r = payloadFd < 0 ? -errno : sd_bus_message_append(m, "{sv}", runtimebus::requestFileKey, "h", payloadFd);
  } else if (r >= 0) {
    if ((r = sd_bus_message_open_container(m, 'e', "sv")) >= 0 &&
        (r = sd_bus_message_append_basic(m, 's', runtimebus::requestDataKey)) >= 0 &&
        (r = sd_bus_message_open_container(m, 'v', "ay")) >= 0 &&
        (r = sd_bus_message_append_array(m, 'y', event.requestData.data(), event.requestData.size())) >= 0 &&
        (r = sd_bus_message_close_container(m)) >= 0)
      r = sd_bus_message_close_container(m);
  }
  if (r >= 0)
    r = appendString(m, runtimebus::requestIDKey, event.requestID);
  if (r >= 0)
    r = appendString(m, runtimebus::clientVersionKey, event.clientVersion);
  if (r >= 0)
    r = sd_bus_message_close_container(m);
  return r;
}

// Reads one entry's value; false when it is not of the type its key requires.
bool readEntry(sd_bus_message *reply, std::string_view key, RuntimeEventReply &out) {
  if (key == runtimebus::errorNumberKey) {
    int32_t number = 0;
    if (sd_bus_message_read(reply, "v", "i", &number) < 0)
      return false;
    out.errorNumber = number;
  } else if (key == runtimebus::errorTextKey) {
    const char *text = nullptr;
    if (sd_bus_message_read(reply, "v", "s", &text) < 0)
      return false;
    out.errorText = text;
  } else if (key == runtimebus::directObjectKey) {
    const void *bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_enter_container(reply, 'v', "ay") < 0 || sd_bus_message_read_array(reply, 'y', &bytes, &size) < 0 ||
        sd_bus_message_exit_container(reply) < 0)
      return false;
    out.directObject.emplace(static_cast<const char *>(bytes), size);
  } else if (key == runtimebus::responseFileKey) {
    int fd = -1;
    if (sd_bus_message_read(reply, "v", "h", &fd) < 0)
      return false;
    out.directObject = readSealedMemfd(fd); // the message owns the descriptor
    return out.directObject.has_value();
  } else {
    return sd_bus_message_skip(reply, "v") >= 0; // unknown entries are for newer bridges
  }
  return true;
}

bool readReply(sd_bus_message *reply, RuntimeEventReply &out) {
  if (sd_bus_message_enter_container(reply, 'a', "{sv}") < 0)
    return false;
  int r;
  while ((r = sd_bus_message_enter_container(reply, 'e', "sv")) > 0) {
    const char *key = nullptr;
    if (sd_bus_message_read_basic(reply, 's', &key) < 0 || !readEntry(reply, key, out) ||
        sd_bus_message_exit_container(reply) < 0)
      return false;
  }
  return r == 0 && sd_bus_message_exit_container(reply) >= 0;
}

// Maps a failed call; a handler not yet installed reads as the runtime's own -1708.
RuntimeEventOutcome outcomeOfError(SessionBusConnection &connection, const sd_bus_error &error, int result) {
  for (const char *name : handlerMissingErrors) {
    if (sd_bus_error_has_name(&error, name)) {
      RuntimeEventOutcome outcome;
      outcome.reply.errorNumber = eventNotHandledStatus;
      return outcome;
    }
  }
  for (const auto &entry : errorStatuses) {
    if (sd_bus_error_has_name(&error, entry.name)) {
      if (entry.status == connectionInvalidStatus)
        connection.invalidate();
      return failed(entry.status, entry.name);
    }
  }
  if (result == -ETIMEDOUT)
    return failed(eventTimedOutStatus, "ETIMEDOUT");
  if (result == -ECONNRESET || result == -ENOTCONN || result == -EPIPE || sd_bus_is_open(connection.bus()) <= 0) {
    connection.invalidate();
    return failed(connectionInvalidStatus, error.name != nullptr ? error.name : "connection lost");
  }
  return failed(badReplyDataStatus, error.name != nullptr ? error.name : "errno " + std::to_string(-result));
}

class DBusRuntimeEventChannel final : public RuntimeEventChannel {
public:
  explicit DBusRuntimeEventChannel(std::string busName) : busName_(std::move(busName)) {}

  RuntimeEventOutcome send(int32_t pid, const RuntimeEvent &event, double timeoutSeconds) override {
    int openError = 0;
    SessionBusConnection *connection = SessionBusConnection::forThisThread(openError);
    if (connection == nullptr)
      return failed(connectionInvalidStatus, "cannot connect to the session bus");
    std::optional<std::string> destination = uniqueName(*connection, pid);
    if (!destination)
      return failed(processNotFoundStatus);
    return call(*connection, *destination, event, timeoutSeconds);
  }

private:
  std::optional<std::string> uniqueName(SessionBusConnection &connection, int32_t pid) const {
    if (auto known = connection.uniqueNames.find(pid); known != connection.uniqueNames.end())
      return known->second;
    std::vector<std::string> owners;
    if (connection.queuedOwners(busName_, owners) < 0)
      return std::nullopt;
    for (const auto &owner : owners) {
      int32_t ownerPID = 0;
      if (connection.processOf(owner, ownerPID) >= 0 && ownerPID == pid) {
        connection.uniqueNames[pid] = owner;
        return owner;
      }
    }
    return std::nullopt;
  }

  RuntimeEventOutcome call(SessionBusConnection &connection, const std::string &destination,
                           const RuntimeEvent &event, double timeoutSeconds) const {
    CallObjects objects;
    sd_bus *bus = connection.bus();
    std::string eventClass(event.eventClass), eventID(event.eventID);
    int r = sd_bus_message_new_method_call(bus, &objects.call, destination.c_str(), runtimebus::objectPath,
                                           runtimebus::interfaceName, runtimebus::sendMethod);
    if (r >= 0)
      r = sd_bus_message_append(objects.call, "ss", eventClass.c_str(), eventID.c_str());
    if (r >= 0)
      r = appendParameters(objects.call, event, objects.fd, sd_bus_can_send(bus, SD_BUS_TYPE_UNIX_FD) > 0);
    if (r < 0)
      return failed(badReplyDataStatus, "cannot build the message");
    r = sd_bus_call(bus, objects.call, timeoutMicroseconds(timeoutSeconds), &objects.error, &objects.reply);
    if (r < 0) {
      auto outcome = outcomeOfError(connection, objects.error, r);
      if (outcome.status == processNotFoundStatus)
        connection.uniqueNames.clear();
      return outcome;
    }
    RuntimeEventOutcome outcome;
    if (!readReply(objects.reply, outcome.reply))
      return failed(badReplyDataStatus, "malformed reply");
    return outcome;
  }

  // sd-bus reads 0 as its 25-second default, so the smallest time-out is one microsecond.
  static uint64_t timeoutMicroseconds(double seconds) {
    if (!(seconds > 0))
      return 1;
    if (seconds > 1e12)
      return UINT64_MAX - 1;
    return std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(seconds * 1e6)));
  }

  std::string busName_;
};

} // namespace

std::unique_ptr<RuntimeEventChannel> makeSystemRuntimeEventChannel(std::string bundleIdentifier) {
  return std::make_unique<DBusRuntimeEventChannel>(std::move(bundleIdentifier));
}

} // namespace tavix
