#include "client/AutomationAuthorization.h"

#include "contracts/ComputerUseRequests.h"
#include "logging/Logger.h"
#include "support/Whitespace.h"

namespace tavix {
namespace {

using Kind = AppleEventsAutomationAuthorization::Kind;

// A probe that failed, or found no target, lets the send go on and report its own error.
bool letsSendProceed(Kind kind) { return kind == Kind::failed || kind == Kind::targetNotFound; }

} // namespace

LogFields responsibleFields(std::string_view requestType, const ResponsibleProcess::Attribution &responsible) {
  return {{"requestType", requestType},
          {"responsibleName", responsible.name ? LogValue(*responsible.name) : LogValue()},
          {"responsiblePID", responsible.processIdentifier ? LogValue(*responsible.processIdentifier) : LogValue()},
          {"responsibleIsSelf", responsible.isSelf}};
}

AppleEventsAutomationAuthorization::Status AppleEventsAutomationAuthorization::status(int32_t osStatus) {
  switch (osStatus) {
  case 0:
    return {Kind::authorized, 0};
  case wouldRequireUserConsentStatus:
    return {Kind::requiresUserConsent, 0};
  case notPermittedStatus:
    return {Kind::denied, 0};
  case targetNotFoundStatus:
    return {Kind::targetNotFound, 0};
  default:
    return {Kind::failed, osStatus};
  }
}

std::string AppleEventsAutomationAuthorization::Status::description() const {
  switch (kind) {
  case Kind::authorized:
    return "authorized";
  case Kind::requiresUserConsent:
    return "requiresUserConsent";
  case Kind::denied:
    return "denied";
  case Kind::targetNotFound:
    return "targetNotFound";
  case Kind::failed:
    break;
  }
  return "failed(" + std::to_string(code) + ")";
}

std::string AppleEventsAutomationAuthorization::remediationMessage(
    std::string_view target, const ResponsibleProcess::Attribution &responsible) {
  const std::optional<std::string> name = trimmedNonEmpty(responsible.name ? &*responsible.name : nullptr);
  std::string text = "Computer Use is not authorized to control ";
  text += target;
  text += " through macOS Automation. macOS returned errAEEventNotPermitted (-1743).\n\n";
  if (responsible.isSelf) {
    text += "macOS holds ";
    text += name.value_or("this MCP server process");
    text += " itself responsible for this request instead of a host application, so no Automation entry "
            "can be granted for it. Start the Computer Use MCP server from its host application, then retry.";
    return text;
  }
  const std::string host = name.value_or("the application that started this MCP server");
  text += "Open System Settings > Privacy & Security > Automation, find " + host + ", and enable ";
  text += target;
  text += " underneath it. Then quit and relaunch " + host + " before retrying.";
  return text;
}

tl::expected<void, ClientError> AutomationAuthorizer::ensureAuthorized(int32_t pid, std::string_view requestType) {
  if (isKnownAuthorized(pid))
    return {};
  auto status = AppleEventsAutomationAuthorization::status(permission_->probe(pid, false));
  if (letsSendProceed(status.kind))
    return {};
  if (!status.isAuthorized() && requestType != ComputerUseIPCCancelRequest::requestType && takePromptAttempt()) {
    Log::warning(LogCategory::ipc, "automation_authorization_prompt_requested",
                 {{"requestType", requestType}, {"probeStatus", status.description()}});
    status = AppleEventsAutomationAuthorization::status(permission_->probe(pid, true));
    if (letsSendProceed(status.kind))
      return {};
  }
  if (status.isAuthorized()) {
    rememberAuthorized(pid);
    return {};
  }
  const auto responsible = responsibleAttribution();
  Log::error(LogCategory::ipc, "automation_authorization_denied", responsibleFields(requestType, responsible));
  return tl::unexpected(notAuthorizedError(responsible));
}

ClientError AutomationAuthorizer::notAuthorizedError(const ResponsibleProcess::Attribution &responsible) const {
  return ClientError::automationNotAuthorized(
      AppleEventsAutomationAuthorization::remediationMessage(targetDisplayName_(), responsible));
}

bool AutomationAuthorizer::isKnownAuthorized(int32_t pid) {
  std::lock_guard lock(mutex_);
  return authorizedPIDs_.contains(pid);
}

void AutomationAuthorizer::rememberAuthorized(int32_t pid) {
  std::lock_guard lock(mutex_);
  authorizedPIDs_.insert(pid);
}

bool AutomationAuthorizer::takePromptAttempt() {
  std::lock_guard lock(mutex_);
  if (didAttemptPrompt_)
    return false;
  didAttemptPrompt_ = true;
  return true;
}

} // namespace tavix
