#pragma once
// The reply to one Send call: an error number and text, or the response's JSON inline
// ("----") or in a sealed memfd ("RspF"), or, as a scripted fault, neither.

#include "runtime/RuntimeError.h"
#include "runtime/UniqueFd.h"

#include <systemd/sd-bus.h>

#include <optional>
#include <string>

namespace tavix::runtime {

struct SendReply {
  std::optional<RuntimeError> error;
  std::optional<std::string> directObject;
  UniqueFd responseFile;

  static SendReply failure(RuntimeError error);
  // The response's JSON in the form its size asks for (see ReplyForm); a reply too large
  // to send is refused with errn -1700.
  static SendReply response(std::string json, bool canPassDescriptors);
  // Success without the response: what a broken runtime might send.
  static SendReply withoutDirectObject() { return {}; }

  // Sends the reply to `call`; a negative errno when it could not be built or queued.
  int send(sd_bus_message *call) const;
};

} // namespace tavix::runtime
