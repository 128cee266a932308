#pragma once
// The arguments of one Send call as the runtime reads them: the event's class and id and
// the parameters of the request (its type, its JSON inline or from a sealed memfd, its id
// and the client's version). A parameter of the wrong type, or a memfd that is not sealed,
// leaves a problem to answer instead of a body.

#include "runtime/RuntimeError.h"

#include <systemd/sd-bus.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tavix::runtime {

struct SendCall {
  enum class Payload { none, inlineBytes, memfd };

  std::string eventClass;
  std::string eventID;
  std::optional<std::string> requestType;
  std::optional<std::string> requestID;
  std::optional<std::string> clientVersion;
  Payload payload = Payload::none;
  std::optional<std::string> body;
  std::optional<RuntimeError> problem;

  static constexpr std::string_view requestEventClass = "ZlCu";
  static constexpr std::string_view requestEventID = "SndR";

  // Reads the call's arguments; a negative errno when they are not (ssa{sv}).
  static int read(sd_bus_message *message, SendCall &call);

  bool isRequestEvent() const { return eventClass == requestEventClass && eventID == requestEventID; }
  // The runtime error to answer before any request handling: the wrong event, a missing
  // type or body, or a bad parameter.
  std::optional<RuntimeError> refusal() const;
};

std::string_view payloadName(SendCall::Payload payload);

} // namespace tavix::runtime
