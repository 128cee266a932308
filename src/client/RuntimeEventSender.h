#pragma once
// One event to one runtime app process, blocking: check that this process may send to it,
// send the request's bytes under its type name and request id, and turn the system's
// status or the runtime's reply into the response's bytes or the transport's error.

#include "client/AutomationAuthorization.h"
#include "client/ClientFailure.h"
#include "platform/RuntimeEventChannel.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

class RuntimeEventSender {
public:
  static constexpr std::string_view eventClass = "ZlCu";
  static constexpr std::string_view eventID = "SndR";

  RuntimeEventSender(std::shared_ptr<RuntimeEventChannel> channel, std::shared_ptr<AutomationAuthorizer> automation,
                     std::string clientVersion)
      : channel_(std::move(channel)), automation_(std::move(automation)), clientVersion_(std::move(clientVersion)) {}

  // Without a request id, the event carries the log request id of the calling thread, or
  // a new one when it has none.
  ClientResult<std::string> send(int32_t pid, std::string_view requestType, std::string_view requestData,
                                 double timeoutSeconds, std::optional<std::string> requestID) const;

private:
  ClientFailure failureForStatus(const RuntimeEventOutcome &outcome, std::string_view requestType,
                                 double timeoutSeconds) const;

  std::shared_ptr<RuntimeEventChannel> channel_;
  std::shared_ptr<AutomationAuthorizer> automation_;
  std::string clientVersion_;
};

} // namespace tavix
