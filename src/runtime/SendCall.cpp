#include "runtime/SendCall.h"

#include "platform/linux/RuntimeBusNames.h"
#include "platform/linux/SealedMemfd.h"

#include <cstring>

namespace tavix::runtime {
namespace {

namespace bus = runtimebus;

void noteProblem(SendCall &call, int32_t number, std::string text) {
  if (!call.problem)
    call.problem = RuntimeError{number, std::move(text)};
}

int readString(sd_bus_message *message, std::optional<std::string> &target) {
  const char *value = nullptr;
  int r = sd_bus_message_read(message, "v", "s", &value);
  if (r >= 0)
    target = value;
  return r;
}

int readInlineBody(sd_bus_message *message, SendCall &call) {
  int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, "ay");
  const void *bytes = nullptr;
  size_t size = 0;
  if (r >= 0)
    r = sd_bus_message_read_array(message, SD_BUS_TYPE_BYTE, &bytes, &size);
  if (r >= 0)
    r = sd_bus_message_exit_container(message);
  if (r < 0)
    return r;
  call.body = size == 0 ? std::string() : std::string(static_cast<const char *>(bytes), size);
  return 0;
}

int readFileBody(sd_bus_message *message, SendCall &call) {
  int fd = -1;
  const int r = sd_bus_message_read(message, "v", "h", &fd);
  if (r < 0)
    return r;
  // The descriptor belongs to the message; only its bytes are kept.
  if (auto bytes = readSealedMemfd(fd))
    call.body = std::move(*bytes);
  else
    noteProblem(call, errn::badData,
                "ReqF is not a memfd sealed against writing, shrinking and growing of at most 64 MiB");
  return 0;
}

// One entry of the parameters: a known key of the right type is read, anything else is
// skipped, a known key of the wrong type noted.
int readParameter(sd_bus_message *message, SendCall &call, std::string_view key, std::string_view contents) {
  const auto expect = [&](std::string_view type) {
    if (contents == type)
      return true;
    noteProblem(call, errn::badData, std::string(key) + " must be of type " + std::string(type));
    return false;
  };
  if (key == bus::requestTypeKey && expect("s"))
    return readString(message, call.requestType);
  if (key == bus::requestIDKey && expect("s"))
    return readString(message, call.requestID);
  if (key == bus::clientVersionKey && expect("s"))
    return readString(message, call.clientVersion);
  if ((key == bus::requestDataKey && expect("ay")) || (key == bus::requestFileKey && expect("h"))) {
    if (call.payload != SendCall::Payload::none) {
      noteProblem(call, errn::badData, "A request carries either ReqD or ReqF, not both");
      return sd_bus_message_skip(message, "v");
    }
    call.payload = key == bus::requestDataKey ? SendCall::Payload::inlineBytes : SendCall::Payload::memfd;
    return key == bus::requestDataKey ? readInlineBody(message, call) : readFileBody(message, call);
  }
  return sd_bus_message_skip(message, "v");
}

} // namespace

int SendCall::read(sd_bus_message *message, SendCall &call) {
  const char *eventClass = nullptr, *eventID = nullptr;
  int r = sd_bus_message_read(message, "ss", &eventClass, &eventID);
  if (r < 0)
    return r;
  call.eventClass = eventClass;
  call.eventID = eventID;
  r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
    const char *key = nullptr, *contents = nullptr;
    r = sd_bus_message_read(message, "s", &key);
    if (r >= 0)
      r = sd_bus_message_peek_type(message, nullptr, &contents);
    if (r >= 0)
      r = readParameter(message, call, key, contents);
    if (r >= 0)
      r = sd_bus_message_exit_container(message);
  }
  if (r >= 0)
    r = sd_bus_message_exit_container(message);
  return r < 0 ? r : 0;
}

std::optional<RuntimeError> SendCall::refusal() const {
  if (!isRequestEvent())
    return RuntimeError{errn::eventNotHandled, "Event not handled: " + eventClass + "/" + eventID};
  if (problem)
    return problem;
  if (!requestType)
    return RuntimeError{errn::missingParameter, "The request has no RspT parameter"};
  if (!body)
    return RuntimeError{errn::missingParameter, "The request has neither ReqD nor ReqF"};
  return std::nullopt;
}

std::string_view payloadName(SendCall::Payload payload) {
  switch (payload) {
  case SendCall::Payload::inlineBytes:
    return "inline";
  case SendCall::Payload::memfd:
    return "memfd";
  case SendCall::Payload::none:
    break;
  }
  return "none";
}

} // namespace tavix::runtime
