#include "testing/SimulatorControl.h"

#include "platform/linux/RuntimeBusNames.h"
#include "platform/linux/SealedMemfd.h"
#include "support/JSON.h"
#include "support/Uuid.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <stdexcept>
#include <unistd.h>

namespace tavix::test {
namespace {

namespace bus = runtimebus;

constexpr const char *controlInterface = "com.tavix.computeruse.Simulator1";

struct MessageUnref {
  void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// An sd_bus_error that frees itself.
struct ErrorHolder {
  sd_bus_error error{};
  ~ErrorHolder() { sd_bus_error_free(&error); }
};

BusError busError(int r, const sd_bus_error &error) {
  if (error.name != nullptr)
    return {error.name, error.message != nullptr ? error.message : ""};
  return {"errno", std::strerror(-r)};
}

uint64_t microseconds(std::chrono::milliseconds timeout) { return static_cast<uint64_t>(timeout.count()) * 1000; }

int appendStringEntry(sd_bus_message *message, const char *key, const std::string &value) {
  return sd_bus_message_append(message, "{sv}", key, "s", value.c_str());
}

int appendParameters(sd_bus_message *message, const SendArguments &arguments) {
  int r = sd_bus_message_append(message, "ss", arguments.eventClass.c_str(), arguments.eventID.c_str());
  if (r >= 0)
    r = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  if (r >= 0 && arguments.requestType)
    r = appendStringEntry(message, bus::requestTypeKey, *arguments.requestType);
  if (r >= 0 && arguments.requestData) {
    if ((r = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) >= 0 &&
        (r = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, bus::requestDataKey)) >= 0 &&
        (r = sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, "ay")) >= 0 &&
        (r = sd_bus_message_append_array(message, SD_BUS_TYPE_BYTE, arguments.requestData->data(),
                                         arguments.requestData->size())) >= 0 &&
        (r = sd_bus_message_close_container(message)) >= 0)
      r = sd_bus_message_close_container(message);
  }
  if (r >= 0 && arguments.requestFile >= 0)
    r = sd_bus_message_append(message, "{sv}", bus::requestFileKey, "h", arguments.requestFile);
  if (r >= 0 && arguments.requestID)
    r = appendStringEntry(message, bus::requestIDKey, *arguments.requestID);
  if (r >= 0 && arguments.clientVersion)
    r = appendStringEntry(message, bus::clientVersionKey, *arguments.clientVersion);
  if (r >= 0)
    r = sd_bus_message_close_container(message);
  return r;
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
    r = sd_bus_message_read(message, "v", "s", &text);
    if (r >= 0)
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
    r = sd_bus_message_read(message, "v", "h", &fd);
    reply.form = RuntimeReply::Form::responseFile;
    if (r >= 0)
      reply.bytes = readSealedMemfd(fd);
  } else {
    r = sd_bus_message_skip(message, "v");
  }
  return r;
}

int readReply(sd_bus_message *message, RuntimeReply &reply) {
  int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
    r = readReplyEntry(message, reply);
    if (r >= 0)
      r = sd_bus_message_exit_container(message);
  }
  return r < 0 ? r : sd_bus_message_exit_container(message);
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
    if (const sd_bus_error *error = sd_bus_message_get_error(message)) {
      outstanding.arrived->push_back({outstanding.requestID, tl::unexpected(busError(-EIO, *error))});
      return 0;
    }
    RuntimeReply decoded;
    if (const int r = readReply(message, decoded); r < 0) {
      outstanding.arrived->push_back({outstanding.requestID, tl::unexpected(BusError{"errno", std::strerror(-r)})});
      return 0;
    }
    outstanding.arrived->push_back({outstanding.requestID, std::move(decoded)});
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
  int file = -1;
  if (json.size() > bus::inlinePayloadLimit) {
    file = makeSealedMemfd("tavix-test-request", json);
    if (file < 0)
      return tl::unexpected(BusError{"errno", "cannot make a sealed memfd"});
    arguments.requestFile = file;
  } else {
    arguments.requestData = std::string(json);
  }
  auto reply = sendArguments(arguments, timeout);
  if (file >= 0)
    ::close(file);
  return reply;
}

tl::expected<RuntimeReply, BusError> SimulatorControl::sendArguments(const SendArguments &arguments,
                                                                     std::chrono::milliseconds timeout) {
  sd_bus_message *raw = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &raw, destination_.c_str(), bus::objectPath, bus::interfaceName,
                                         bus::sendMethod);
  Message call(raw);
  if (r >= 0)
    r = appendParameters(raw, arguments);
  ErrorHolder error;
  sd_bus_message *answer = nullptr;
  if (r >= 0)
    r = sd_bus_call(bus_, raw, microseconds(timeout), &error.error, &answer);
  Message reply(answer);
  if (r < 0)
    return tl::unexpected(busError(r, error.error));
  RuntimeReply decoded;
  if ((r = readReply(answer, decoded)) < 0)
    return tl::unexpected(busError(r, error.error));
  return decoded;
}

tl::expected<void, BusError> SimulatorControl::sendWithoutWaiting(std::string_view requestType, std::string_view json,
                                                                  std::string requestID,
                                                                  std::chrono::milliseconds timeout) {
  SendArguments arguments;
  arguments.requestType = std::string(requestType);
  arguments.requestData = std::string(json);
  arguments.requestID = std::move(requestID);
  sd_bus_message *raw = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &raw, destination_.c_str(), bus::objectPath, bus::interfaceName,
                                         bus::sendMethod);
  Message call(raw);
  if (r >= 0)
    r = appendParameters(raw, arguments);
  auto outstanding = std::make_unique<Outstanding>();
  outstanding->requestID = *arguments.requestID;
  outstanding->arrived = &arrived_;
  if (r >= 0)
    r = sd_bus_call_async(bus_, &outstanding->slot, raw, &Outstanding::onReply, outstanding.get(), microseconds(timeout));
  if (r < 0)
    return tl::unexpected(BusError{"errno", std::strerror(-r)});
  outstanding_.push_back(std::move(outstanding));
  return {};
}

std::vector<SimulatorControl::ArrivedReply> SimulatorControl::awaitReplies() {
  const auto waiting = [this] {
    return std::any_of(outstanding_.begin(), outstanding_.end(), [](const auto &outstanding) { return !outstanding->answered; });
  };
  while (waiting()) {
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
  ErrorHolder error;
  const std::string rules(rulesJSON);
  const int r = sd_bus_call_method(bus_, destination_.c_str(), bus::objectPath, controlInterface, "SetFaults",
                                   &error.error, nullptr, "s", rules.c_str());
  if (r < 0)
    return tl::unexpected(busError(r, error.error));
  return {};
}

nlohmann::json SimulatorControl::events() {
  ErrorHolder error;
  sd_bus_message *answer = nullptr;
  int r = sd_bus_call_method(bus_, destination_.c_str(), bus::objectPath, controlInterface, "Events", &error.error,
                             &answer, "");
  Message reply(answer);
  const char *text = nullptr;
  if (r >= 0)
    r = sd_bus_message_read(answer, "s", &text);
  if (r < 0)
    throw std::runtime_error("Events failed: " + busError(r, error.error).message);
  return parseJSON(text).value_or(nlohmann::json());
}

void SimulatorControl::clearEvents() {
  ErrorHolder error;
  const int r = sd_bus_call_method(bus_, destination_.c_str(), bus::objectPath, controlInterface, "ClearEvents",
                                   &error.error, nullptr, "");
  if (r < 0)
    throw std::runtime_error("ClearEvents failed: " + busError(r, error.error).message);
}

tl::expected<nlohmann::json, BusError> SimulatorControl::awaitEvents(std::string_view requestType, uint32_t count,
                                                                     std::chrono::milliseconds timeout) {
  sd_bus_message *raw = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &raw, destination_.c_str(), bus::objectPath, controlInterface,
                                         "AwaitEvents");
  Message call(raw);
  const std::string type(requestType);
  if (r >= 0)
    r = sd_bus_message_append(raw, "suu", type.c_str(), count, static_cast<uint32_t>(timeout.count()));
  ErrorHolder error;
  sd_bus_message *answer = nullptr;
  // The call outlives the simulator's own time-out, so that its error is what arrives.
  if (r >= 0)
    r = sd_bus_call(bus_, raw, microseconds(timeout + std::chrono::seconds(10)), &error.error, &answer);
  Message reply(answer);
  const char *text = nullptr;
  if (r >= 0)
    r = sd_bus_message_read(answer, "s", &text);
  if (r < 0)
    return tl::unexpected(busError(r, error.error));
  return parseJSON(text).value_or(nlohmann::json());
}

tl::expected<std::vector<std::string>, BusError> SimulatorControl::queuedOwners(const std::string &name) {
  ErrorHolder error;
  sd_bus_message *answer = nullptr;
  int r = sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "ListQueuedOwners", &error.error, &answer, "s", name.c_str());
  Message reply(answer);
  char **names = nullptr;
  if (r >= 0)
    r = sd_bus_message_read_strv(answer, &names);
  if (r < 0)
    return tl::unexpected(busError(r, error.error));
  std::vector<std::string> owners;
  for (char **at = names; at != nullptr && *at != nullptr; ++at) {
    owners.emplace_back(*at);
    std::free(*at);
  }
  std::free(names);
  return owners;
}

} // namespace tavix::test
