#include "testing/SimulatorControl.h"

#include "platform/linux/RuntimeBusNames.h"
#include "platform/linux/SealedMemfd.h"
#include "support/JSON.h"
#include "support/Uuid.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace tavix::test {
namespace {

namespace bus = runtimebus;

constexpr const char *controlInterface = "com.tavix.computeruse.Simulator1";

struct MessageUnref {
  void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

BusError busError(int r, const sd_bus_error &error) {
  if (error.name != nullptr)
    return {error.name, error.message != nullptr ? error.message : ""};
  return {"errno", std::strerror(-r)};
}

uint64_t microseconds(std::chrono::milliseconds timeout) { return static_cast<uint64_t>(timeout.count()) * 1000; }

// Calls `method` and returns its reply, or the error it ended in.
template <typename... Arguments>
tl::expected<Message, BusError> call(sd_bus *connection, const char *destination, const char *path,
                                     const char *interface, const char *method, std::chrono::milliseconds timeout,
                                     const char *types, Arguments... arguments) {
  sd_bus_message *raw = nullptr, *answer = nullptr;
  sd_bus_error error{};
  int r = sd_bus_message_new_method_call(connection, &raw, destination, path, interface, method);
  Message request(raw);
  if (r >= 0)
    r = sd_bus_message_append(raw, types, arguments...);
  if (r >= 0)
    r = sd_bus_call(connection, raw, microseconds(timeout), &error, &answer);
  Message reply(answer);
  const auto failure = busError(r, error);
  sd_bus_error_free(&error);
  if (r < 0)
    return tl::unexpected(failure);
  return reply;
}

// The JSON text of a control call's reply.
tl::expected<nlohmann::json, BusError> jsonOf(tl::expected<Message, BusError> reply) {
  const char *text = nullptr;
  if (!reply)
    return tl::unexpected(reply.error());
  if (const int r = sd_bus_message_read(reply->get(), "s", &text); r < 0)
    return tl::unexpected(BusError{"errno", std::strerror(-r)});
  return parseJSON(text).value_or(nlohmann::json());
}

int appendEntry(sd_bus_message *message, const char *key, const std::optional<std::string> &value) {
  return value ? sd_bus_message_append(message, "{sv}", key, "s", value->c_str()) : 0;
}

// A Send call carrying `arguments`.
Message sendCall(sd_bus *connection, const std::string &destination, const SendArguments &arguments) {
  sd_bus_message *raw = nullptr;
  int r = sd_bus_message_new_method_call(connection, &raw, destination.c_str(), bus::objectPath, bus::interfaceName,
                                         bus::sendMethod);
  Message message(raw);
  if (r >= 0)
    r = sd_bus_message_append(raw, "ss", arguments.eventClass.c_str(), arguments.eventID.c_str());
  if (r >= 0)
    r = sd_bus_message_open_container(raw, SD_BUS_TYPE_ARRAY, "{sv}");
  if (r >= 0)
    r = appendEntry(raw, bus::requestTypeKey, arguments.requestType);
  if (r >= 0 && arguments.requestData) {
    if ((r = sd_bus_message_open_container(raw, SD_BUS_TYPE_DICT_ENTRY, "sv")) >= 0 &&
        (r = sd_bus_message_append_basic(raw, SD_BUS_TYPE_STRING, bus::requestDataKey)) >= 0 &&
        (r = sd_bus_message_open_container(raw, SD_BUS_TYPE_VARIANT, "ay")) >= 0 &&
        (r = sd_bus_message_append_array(raw, SD_BUS_TYPE_BYTE, arguments.requestData->data(),
                                         arguments.requestData->size())) >= 0 &&
        (r = sd_bus_message_close_container(raw)) >= 0)
      r = sd_bus_message_close_container(raw);
  }
  if (r >= 0 && arguments.requestFile >= 0)
    r = sd_bus_message_append(raw, "{sv}", bus::requestFileKey, "h", arguments.requestFile);
  if (r >= 0)
    r = appendEntry(raw, bus::requestIDKey, arguments.requestID);
  if (r >= 0)
    r = appendEntry(raw, bus::clientVersionKey, arguments.clientVersion);
  if (r >= 0)
    r = sd_bus_message_close_container(raw);
  if (r < 0)
    throw std::runtime_error(std::string("cannot build a Send call: ") + std::strerror(-r));
  return message;
}

// One entry of the reply: the known keys are read, others skipped.
int readReplyEntry(sd_bus_message *message, RuntimeReply &reply) {
  const char *key = nullptr;
  int r = sd_bus_message_read(message, "s", &key);
  if (r < 0)
    return r;
  const std::string_view name = key;
  if (name == bus::errorNumberKey) {
    int32_t number = 0;
    r = sd_bus_message_read(message, "v", "i", &number);
    reply.errn = number;
  } else if (name == bus::errorTextKey) {
    const char *text = nullptr;
    if ((r = sd_bus_message_read(message, "v", "s", &text)) >= 0)
      reply.errs = text;
  } else if (name == bus::directObjectKey) {
    const void *bytes = nullptr;
    size_t size = 0;
    if ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, "ay")) >= 0 &&
        (r = sd_bus_message_read_array(message, SD_BUS_TYPE_BYTE, &bytes, &size)) >= 0)
      r = sd_bus_message_exit_container(message);
    reply.form = RuntimeReply::Form::directObject;
    reply.bytes = size == 0 ? std::string() : std::string(static_cast<const char *>(bytes), size);
  } else if (name == bus::responseFileKey) {
    int fd = -1;
    reply.form = RuntimeReply::Form::responseFile;
    if ((r = sd_bus_message_read(message, "v", "h", &fd)) >= 0)
      reply.bytes = readSealedMemfd(fd);
  } else {
    r = sd_bus_message_skip(message, "v");
  }
  return r;
}

tl::expected<RuntimeReply, BusError> readReply(sd_bus_message *message) {
  RuntimeReply reply;
  int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0)
    if ((r = readReplyEntry(message, reply)) >= 0)
      r = sd_bus_message_exit_container(message);
  if (r >= 0)
    r = sd_bus_message_exit_container(message);
  if (r < 0)
    return tl::unexpected(BusError{"errno", std::strerror(-r)});
  return reply;
}

} // namespace

// A request sent without waiting, until its reply arrives.
struct SimulatorControl::Outstanding {
  std::string requestID;
  std::vector<ArrivedReply> *arrived = nullptr;
  sd_bus_slot *slot = nullptr;
  bool answered = false;

  static int onReply(sd_bus_message *message, void *self, sd_bus_error *) {
    auto &outstanding = *static_cast<Outstanding *>(self);
    outstanding.answered = true;
    const sd_bus_error *error = sd_bus_message_get_error(message);
    outstanding.arrived->push_back(
        {outstanding.requestID, error != nullptr ? tl::unexpected(busError(-EIO, *error)) : readReply(message)});
    return 0;
  }
};

SimulatorControl::SimulatorControl(const std::string &busAddress, std::string destination)
    : destination_(std::move(destination)) {
  int r = sd_bus_new(&bus_);
  if (r >= 0 && (r = sd_bus_set_address(bus_, busAddress.c_str())) >= 0 && (r = sd_bus_set_bus_client(bus_, 1)) >= 0 &&
      (r = sd_bus_negotiate_fds(bus_, 1)) >= 0)
    r = sd_bus_start(bus_);
  const char *unique = nullptr;
  if (r >= 0)
    r = sd_bus_get_unique_name(bus_, &unique);
  if (r < 0) {
    bus_ = sd_bus_flush_close_unref(bus_);
    throw std::runtime_error("cannot connect to " + busAddress + ": " + std::strerror(-r));
  }
  uniqueName_ = unique;
}

SimulatorControl::~SimulatorControl() {
  for (auto &outstanding : outstanding_)
    sd_bus_slot_unref(outstanding->slot);
  sd_bus_flush_close_unref(bus_);
}

tl::expected<RuntimeReply, BusError> SimulatorControl::send(std::string_view requestType, std::string_view json,
                                                            std::string requestID, std::chrono::milliseconds timeout) {
  SendArguments arguments;
  arguments.requestType = std::string(requestType);
  arguments.requestID = requestID.empty() ? makeUUIDString() : std::move(requestID);
  if (json.size() > bus::inlinePayloadLimit) {
    arguments.requestFile = makeSealedMemfd("tavix-test-request", json);
    if (arguments.requestFile < 0)
      return tl::unexpected(BusError{"errno", "cannot make a sealed memfd"});
  } else {
    arguments.requestData = std::string(json);
  }
  auto reply = sendArguments(arguments, timeout);
  if (arguments.requestFile >= 0)
    ::close(arguments.requestFile);
  return reply;
}

tl::expected<RuntimeReply, BusError> SimulatorControl::sendArguments(const SendArguments &arguments,
                                                                     std::chrono::milliseconds timeout) {
  const Message request = sendCall(bus_, destination_, arguments);
  sd_bus_message *answer = nullptr;
  sd_bus_error error{};
  const int r = sd_bus_call(bus_, request.get(), microseconds(timeout), &error, &answer);
  const Message reply(answer);
  const auto failure = busError(r, error);
  sd_bus_error_free(&error);
  if (r < 0)
    return tl::unexpected(failure);
  return readReply(answer);
}

tl::expected<void, BusError> SimulatorControl::sendWithoutWaiting(std::string_view requestType, std::string_view json,
                                                                  std::string requestID,
                                                                  std::chrono::milliseconds timeout) {
  SendArguments arguments;
  arguments.requestType = std::string(requestType);
  arguments.requestData = std::string(json);
  arguments.requestID = std::move(requestID);
  auto outstanding = std::make_unique<Outstanding>();
  outstanding->requestID = *arguments.requestID;
  outstanding->arrived = &arrived_;
  const int r = sd_bus_call_async(bus_, &outstanding->slot, sendCall(bus_, destination_, arguments).get(),
                                  &Outstanding::onReply, outstanding.get(), microseconds(timeout));
  if (r < 0)
    return tl::unexpected(BusError{"errno", std::strerror(-r)});
  outstanding_.push_back(std::move(outstanding));
  return {};
}

std::vector<SimulatorControl::ArrivedReply> SimulatorControl::awaitReplies() {
  while (std::any_of(outstanding_.begin(), outstanding_.end(), [](const auto &each) { return !each->answered; })) {
    const int r = sd_bus_process(bus_, nullptr);
    if (r < 0)
      throw std::runtime_error(std::string("the connection failed: ") + std::strerror(-r));
    if (r == 0 && sd_bus_wait(bus_, UINT64_MAX) < 0)
      throw std::runtime_error("cannot wait on the connection");
  }
  for (auto &outstanding : outstanding_)
    sd_bus_slot_unref(outstanding->slot);
  outstanding_.clear();
  return std::exchange(arrived_, {});
}

tl::expected<void, BusError> SimulatorControl::setFaults(std::string_view rulesJSON) {
  const std::string rules(rulesJSON);
  auto reply = call(bus_, destination_.c_str(), bus::objectPath, controlInterface, "SetFaults",
                    std::chrono::seconds(25), "s", rules.c_str());
  if (!reply)
    return tl::unexpected(reply.error());
  return {};
}

nlohmann::json SimulatorControl::events() {
  auto events = jsonOf(call(bus_, destination_.c_str(), bus::objectPath, controlInterface, "Events",
                            std::chrono::seconds(25), ""));
  if (!events)
    throw std::runtime_error("Events failed: " + events.error().message);
  return *events;
}

void SimulatorControl::clearEvents() {
  auto reply = call(bus_, destination_.c_str(), bus::objectPath, controlInterface, "ClearEvents",
                    std::chrono::seconds(25), "");
  if (!reply)
    throw std::runtime_error("ClearEvents failed: " + reply.error().message);
}

tl::expected<nlohmann::json, BusError> SimulatorControl::awaitEvents(std::string_view requestType, uint32_t count,
                                                                     std::chrono::milliseconds timeout) {
  const std::string type(requestType);
  // The call outlives the simulator's own time-out, so that its error is what arrives.
  return jsonOf(call(bus_, destination_.c_str(), bus::objectPath, controlInterface, "AwaitEvents",
                     timeout + std::chrono::seconds(10), "suu", type.c_str(), count,
                     static_cast<uint32_t>(timeout.count())));
}

tl::expected<std::vector<std::string>, BusError> SimulatorControl::queuedOwners(const std::string &name) {
  auto reply = call(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                    "ListQueuedOwners", std::chrono::seconds(25), "s", name.c_str());
  char **names = nullptr;
  if (!reply)
    return tl::unexpected(reply.error());
  if (const int r = sd_bus_message_read_strv(reply->get(), &names); r < 0)
    return tl::unexpected(BusError{"errno", std::strerror(-r)});
  std::vector<std::string> owners;
  for (char **at = names; at != nullptr && *at != nullptr; ++at) {
    owners.emplace_back(*at);
    std::free(*at);
  }
  std::free(names);
  return owners;
}

} // namespace tavix::test
