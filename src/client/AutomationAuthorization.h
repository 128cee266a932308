#pragma once
// The check that this process may send events to a runtime app before it does: probe
// quietly, ask the user at most once per process, remember the processes found
// authorized, and otherwise fail with a message that tells the user what to grant.

#include "client/ClientError.h"
#include "client/ResponsibleProcess.h"
#include "logging/LogValue.h"
#include "platform/AutomationPermission.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace tavix {

class AppleEventsAutomationAuthorization {
public:
  enum class Kind { authorized, requiresUserConsent, denied, targetNotFound, failed };
  struct Status {
    Kind kind = Kind::failed;
    int32_t code = 0; // the probe's status, for `failed`
    bool isAuthorized() const { return kind == Kind::authorized; }
    bool isAuthorizationProblem() const { return kind == Kind::requiresUserConsent || kind == Kind::denied; }
    std::string description() const;
    friend bool operator==(const Status &, const Status &) = default;
  };

  static constexpr int32_t notPermittedStatus = -1743;
  static constexpr int32_t wouldRequireUserConsentStatus = -1744;
  static constexpr int32_t targetNotFoundStatus = -600;

  static Status status(int32_t osStatus);
  static bool isNotPermitted(int32_t osStatus) { return osStatus == notPermittedStatus; }
  static std::string remediationMessage(std::string_view targetDisplayName,
                                        const ResponsibleProcess::Attribution &responsible);
};

// The log fields that name the responsible process of a refusal.
LogFields responsibleFields(std::string_view requestType, const ResponsibleProcess::Attribution &responsible);

class AutomationAuthorizer {
public:
  AutomationAuthorizer(std::shared_ptr<AutomationPermission> permission, std::shared_ptr<ProcessInformation> processes,
                       std::function<std::string()> targetDisplayName)
      : permission_(std::move(permission)), processes_(std::move(processes)),
        targetDisplayName_(std::move(targetDisplayName)) {}

  // Returns when events to `pid` may be sent (or when the probe cannot tell, so that the
  // send reports its own error); fails with `automationNotAuthorized` otherwise.
  tl::expected<void, ClientError> ensureAuthorized(int32_t pid, std::string_view requestType);

  // Who the system holds responsible for this process, and the error that tells the
  // user what to grant to it.
  ResponsibleProcess::Attribution responsibleAttribution() const { return ResponsibleProcess(*processes_).current(); }
  ClientError notAuthorizedError(const ResponsibleProcess::Attribution &responsible) const;

private:
  bool isKnownAuthorized(int32_t pid);
  void rememberAuthorized(int32_t pid);
  bool takePromptAttempt();

  std::shared_ptr<AutomationPermission> permission_;
  std::shared_ptr<ProcessInformation> processes_;
  std::function<std::string()> targetDisplayName_;
  std::mutex mutex_;
  bool didAttemptPrompt_ = false;
  std::set<int32_t> authorizedPIDs_;
};

} // namespace tavix
