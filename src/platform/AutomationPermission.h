#pragma once
// Whether this process may send events to another one, as the system's consent records
// say: 0 when it may, otherwise the system's status (consent needed, refused, target
// not found, or the probe's own failure).

#include <cstdint>
#include <memory>

namespace tavix {

inline constexpr int32_t automationWouldRequireConsentStatus = -1744;

class AutomationPermission {
public:
  virtual ~AutomationPermission() = default;
  // Asks for any event to `pid`; with `askUserIfNeeded` the system may prompt the user.
  virtual int32_t probe(int32_t pid, bool askUserIfNeeded) = 0;
};

std::unique_ptr<AutomationPermission> makeSystemAutomationPermission();

} // namespace tavix
