#include "client/RuntimeEventSender.h"

#include "logging/Logger.h"
#include "support/RequestContext.h"
#include "support/Uuid.h"

#include <cmath>

namespace tavix {
namespace {

std::string eventRequestID(std::optional<std::string> given) {
  if (given)
    return std::move(*given);
  if (const auto &correlation = RequestContext::current()->correlationID(); !correlation.empty())
    return correlation;
  return makeUUIDString();
}

} // namespace

ClientResult<std::string> RuntimeEventSender::send(int32_t pid, std::string_view requestType,
                                                   std::string_view requestData, double timeoutSeconds,
                                                   std::optional<std::string> requestID) const {
  if (auto authorized = automation_->ensureAuthorized(pid, requestType); !authorized)
    return tl::unexpected(ClientFailure(std::move(authorized.error())));
  const std::string id = eventRequestID(std::move(requestID));
  const RuntimeEvent event{eventClass, eventID, requestType, requestData, id, clientVersion_};
  RuntimeEventOutcome outcome = channel_->send(pid, event, timeoutSeconds);
  if (outcome.status != 0)
    return tl::unexpected(failureForStatus(outcome, requestType, timeoutSeconds));
  RuntimeEventReply &reply = outcome.reply;
  if (reply.errorNumber && *reply.errorNumber != 0)
    return tl::unexpected(ClientFailure(ServerError{*reply.errorNumber, std::move(reply.errorText)}));
  if (!reply.directObject)
    return tl::unexpected(ClientFailure(ClientError::invalidResponse()));
  return std::move(*reply.directObject);
}

ClientFailure RuntimeEventSender::failureForStatus(const RuntimeEventOutcome &outcome,
                                                   std::string_view requestType, double timeoutSeconds) const {
  if (AppleEventsAutomationAuthorization::isNotPermitted(outcome.status)) {
    const auto responsible = automation_->responsibleAttribution();
    LogFields fields = responsibleFields(requestType, responsible);
    fields["errorCode"] = outcome.status;
    fields["reason"] = "automation-not-authorized";
    Log::error(LogCategory::ipc, "apple_event_send_denied", fields);
    return automation_->notAuthorizedError(responsible);
  }
  LogFields fields{{"requestType", requestType},
                   {"errorCode", outcome.status},
                   {"timeoutMs", static_cast<int64_t>(std::llround(timeoutSeconds * 1000))}};
  if (!outcome.detail.empty())
    fields["busError"] = outcome.detail;
  Log::error(LogCategory::ipc, "apple_event_send_failed", fields);
  return ClientError::sendFailed(outcome.status, std::string(requestType), timeoutSeconds);
}

} // namespace tavix
